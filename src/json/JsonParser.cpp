#include "json/JsonParser.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <system_error>
#include <utility>

namespace {

/// No \u escape is waiting for its second half.
constexpr long noCodePoint = -1;

/// True for the bytes of a string that stand for themselves.
constexpr std::array<bool, 256> makePlainBytes() {
  std::array<bool, 256> plain{};
  for (std::size_t byte = ' '; byte < plain.size(); ++byte) plain[byte] = true;
  plain['"'] = plain['\\'] = false;
  return plain;
}
constexpr std::array<bool, 256> isPlain = makePlainBytes();

bool isDigit(char byte) { return byte >= '0' && byte <= '9'; }

bool isHighSurrogate(long codePoint) { return codePoint >= 0xd800 && codePoint <= 0xdbff; }

bool isLowSurrogate(long codePoint) { return codePoint >= 0xdc00 && codePoint <= 0xdfff; }

/// A byte as messages show it: 'x' (120), or (10) for what does not print. Bytes from 128 up count
/// as negative: 0xC3 is (-61).
std::string describe(char byte) {
  const int code = static_cast<signed char>(byte);  // NOLINT(bugprone-signed-char-misuse)
  char text[16];
  if (code < ' ') {
    std::snprintf(text, sizeof text, "(%d)", code);
  } else {
    std::snprintf(text, sizeof text, "'%c' (%d)", byte, code);
  }
  return text;
}

/// Appends the UTF-8 form of `codePoint` and forgets it. A surrogate without its partner takes its
/// three-byte form: a host that sends one gets it back.
void writeOut(std::string &out, long &codePoint) {
  if (codePoint == noCodePoint) return;
  const auto append = [&out](long byte) { out += static_cast<char>(byte); };
  if (codePoint < 0x80) {
    append(codePoint);
  } else if (codePoint < 0x800) {
    append(0xc0 | (codePoint >> 6));
    append(0x80 | (codePoint & 0x3f));
  } else if (codePoint < 0x10000) {
    append(0xe0 | (codePoint >> 12));
    append(0x80 | ((codePoint >> 6) & 0x3f));
    append(0x80 | (codePoint & 0x3f));
  } else {
    append(0xf0 | (codePoint >> 18));
    append(0x80 | ((codePoint >> 12) & 0x3f));
    append(0x80 | ((codePoint >> 6) & 0x3f));
    append(0x80 | (codePoint & 0x3f));
  }
  codePoint = noCodePoint;
}

/// Ten digits and no sign: this is where a number turns from a double into an unsigned one.
constexpr std::string_view lastTenDigitDouble = "4294967295";

/// Whether a literal that is not a short integer is read as an unsigned 64-bit number.
///
/// Deliberate: this looks at the literal's length and, for ten bytes, at its text, not at its
/// value. So a non-negative literal of ten or more bytes with an exponent but no fraction is
/// unsigned and ends at its "e" (12345678901e5 is 12345678901), and 4294967295 is a double while
/// 4294967296 is unsigned. Hosts rely on addresses taking the unsigned form by their length alone.
bool isUnsigned(std::string_view literal, bool hasFraction) {
  if (literal[0] == '-' || hasFraction) return false;
  if (literal.size() == lastTenDigitDouble.size()) return literal > lastTenDigitDouble;
  return literal.size() > lastTenDigitDouble.size();
}

}  // namespace

Json Json::parse(const std::string &text, std::string &error, JsonParseMode mode) {
  return JsonParser(text, error, mode).parse();
}

Json JsonParser::parse() {
  Json value = parseValue(0);
  skip();
  if (!failed && !atEnd()) fail("unexpected trailing " + describe(*at));
  if (failed) return Json();
  return value;
}

Json JsonParser::parseValue(int depth) {
  if (depth > maximumDepth) {
    fail("exceeded maximum nesting depth");
    return Json();
  }
  const char token = nextToken();
  if (failed) return Json();
  if (token == '-' || isDigit(token)) {
    --at;
    return parseNumber();
  }
  switch (token) {
    case 'n': return expectWord("null", Json());
    case 't': return expectWord("true", Json(true));
    case 'f': return expectWord("false", Json(false));
    case '"': return Json(parseString());
    case '{': return parseObject(depth);
    case '[': return parseArray(depth);
    default: fail("expected value, got " + describe(token)); return Json();
  }
}

Json JsonParser::expectWord(std::string_view word, const Json &value) {
  --at;
  const std::string_view found = rest().substr(0, word.size());
  if (found != word) {
    fail("parse error: expected " + std::string(word) + ", got " + std::string(found));
    return Json();
  }
  at += word.size();
  return value;
}

Json JsonParser::parseObject(int depth) {
  std::vector<Json::object::value_type> members;
  char token = nextToken();
  if (token == '}') return Json(Json::object());
  members.reserve(Json::object::usualCount);
  for (;;) {
    if (token != '"') {
      fail("expected '\"' in object, got " + describe(token));
      return Json();
    }
    std::string key = parseString();
    if (failed) return Json();
    token = nextToken();
    if (token != ':') {
      fail("expected ':' in object, got " + describe(token));
      return Json();
    }
    Json value = parseValue(depth + 1);
    if (failed) return Json();
    members.emplace_back(std::move(key), std::move(value));
    token = nextToken();
    if (token == '}') return Json(Json::object(std::move(members)));
    if (token != ',') {
      fail("expected ',' in object, got " + describe(token));
      return Json();
    }
    token = nextToken();
  }
}

Json JsonParser::parseArray(int depth) {
  Json::array items;
  char token = nextToken();
  if (token == ']') return Json(std::move(items));
  while (!failed) {
    --at;
    items.push_back(parseValue(depth + 1));
    if (failed) break;
    token = nextToken();
    if (token == ']') return Json(std::move(items));
    if (token != ',') fail("expected ',' in list, got " + describe(token));
    nextToken();
  }
  return Json();
}

std::string JsonParser::parseString() {
  const char *start = at;
  while (isPlain[static_cast<unsigned char>(*at)]) ++at;
  if (*at == '"') return std::string(start, at++);  // no escapes in it, as most have none

  std::string out(start, at);
  long pending = noCodePoint;
  while (!failed) {
    if (atEnd()) {
      fail("unexpected end of input in string");
      break;
    }
    const char byte = *at++;
    if (byte == '\\') {
      parseEscape(out, pending);
    } else if (static_cast<unsigned char>(byte) < ' ') {
      fail("unescaped " + describe(byte) + " in string");
    } else {
      writeOut(out, pending);
      if (byte == '"') return out;
      out += byte;
    }
  }
  return std::string();
}

void JsonParser::parseEscape(std::string &out, long &pending) {
  if (atEnd()) {
    fail("unexpected end of input in string");
    return;
  }
  const char letter = *at++;
  if (letter == 'u') {
    parseUnicodeEscape(out, pending);
    return;
  }
  writeOut(out, pending);
  switch (letter) {
    case 'b': out += '\b'; break;
    case 'f': out += '\f'; break;
    case 'n': out += '\n'; break;
    case 'r': out += '\r'; break;
    case 't': out += '\t'; break;
    case '"':
    case '\\':
    case '/': out += letter; break;
    default: fail("invalid escape character " + describe(letter));
  }
}

void JsonParser::parseUnicodeEscape(std::string &out, long &pending) {
  const std::string_view digits = rest().substr(0, 4);
  long codePoint = 0;
  const auto read = std::from_chars(digits.data(), digits.data() + digits.size(), codePoint, 16);
  // from_chars would take a sign as well.
  const bool isHex = digits.size() == 4 && digits[0] != '-' && read.ec == std::errc() &&
                     read.ptr == digits.data() + digits.size();
  if (!isHex) {
    fail("bad \\u escape: " + std::string(digits));
    return;
  }
  if (isHighSurrogate(pending) && isLowSurrogate(codePoint)) {
    pending = (((pending - 0xd800) << 10) | (codePoint - 0xdc00)) + 0x10000;
    writeOut(out, pending);
  } else {
    writeOut(out, pending);
    pending = codePoint;
  }
  at += digits.size();
}

Json JsonParser::parseNumber() {
  const char *const start = at;
  if (*at == '-') ++at;

  if (*at == '0') {
    ++at;
    if (isDigit(*at)) {
      fail("leading 0s not permitted in numbers");
      return Json();
    }
  } else if (isDigit(*at)) {
    skipDigits();
  } else {
    fail("invalid " + describe(*at) + " in number");
    return Json();
  }

  const bool hasFraction = *at == '.';
  const bool isInteger = !hasFraction && *at != 'e' && *at != 'E';
  // Nine bytes, sign included, always fit 32 bits.
  if (isInteger && at - start <= 9) {
    const bool isNegative = *start == '-';
    std::int32_t value = 0;
    for (const char *digit = start + isNegative; digit < at; ++digit)
      value = 10 * value + (*digit - '0');
    return Json(isNegative ? -value : value);
  }

  if (hasFraction) {
    ++at;
    if (!isDigit(*at)) {
      fail("at least one digit required in fractional part");
      return Json();
    }
    skipDigits();
  }
  if (*at == 'e' || *at == 'E') {
    ++at;
    if (*at == '+' || *at == '-') ++at;
    if (!isDigit(*at)) {
      fail("at least one digit required in exponent");
      return Json();
    }
    skipDigits();
  }

  if (!isUnsigned(std::string_view(start, at), hasFraction))
    return Json(std::strtod(start, nullptr));
  std::uint64_t value = 0;
  // Deliberate: what does not fit becomes the largest number.
  if (std::from_chars(start, at, value).ec != std::errc())
    value = std::numeric_limits<std::uint64_t>::max();
  return Json(value);
}

void JsonParser::skipDigits() {
  while (isDigit(*at)) ++at;
}

void JsonParser::skipComments() {
  while (skipComment()) skipWhitespace();
}

bool JsonParser::skipComment() {
  if (failed || *at != '/') return false;
  ++at;
  if (atEnd()) {
    fail("unexpected end of input after start of comment");
    return false;
  }
  const char kind = *at++;
  if (kind == '/') {
    at += std::min(rest().find('\n'), rest().size());
    return true;
  }
  if (kind != '*') {
    fail("malformed comment");
    return false;
  }
  const std::size_t length = rest().find("*/");
  if (length == std::string_view::npos) {
    fail("unexpected end of input inside multi-line comment");
    return false;
  }
  at += length + 2;
  return true;
}

void JsonParser::fail(std::string message) {
  if (!failed) error = std::move(message);
  failed = true;
}
