#include "json/JsonParser.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdlib>
#include <limits>
#include <system_error>
#include <utility>

namespace {

/// The pending code point while no \u escape is pending.
constexpr long noCodePoint = -1;

/// True for the bytes of a string that mean themselves.
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

/// A byte as error messages show it: 'x' (120), or (10) for a control character.
///
/// Deliberate: bytes from 128 up count as negative, 0xC3 is (-61). Hosts receive these texts word
/// for word. clang-tidy warns of just this conversion.
std::string describe(char byte) {
  const int code = static_cast<signed char>(byte);  // NOLINT(bugprone-signed-char-misuse)
  std::string text;
  if (code >= ' ') text = {'\'', byte, '\'', ' '};
  return text.append("(").append(std::to_string(code)).append(")");
}

/// Appends the UTF-8 form of `codePoint`, if there is one, and resets it. A surrogate without its
/// partner takes its three-byte form, so a host that sends one gets it back.
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

/// An integer of up to nine bytes, sign included, always fits 32 bits.
constexpr std::ptrdiff_t shortInteger = 9;

std::int32_t toInt32(const char *digit, const char *end) {
  const bool isNegative = *digit == '-';
  if (isNegative) ++digit;
  std::int32_t value = 0;
  for (; digit < end; ++digit) value = 10 * value + (*digit - '0');
  return isNegative ? -value : value;
}

/// The largest literal of ten digits that becomes a double.
constexpr std::string_view lastTenDigitDouble = "4294967295";

/// Whether a literal that is not a short integer becomes an unsigned 64-bit number.
///
/// Deliberate: the length of the literal decides, and for ten bytes its text; the value does not.
/// So 4294967295 is a double and 4294967296 is unsigned. An exponent without a fraction counts as
/// part of the length, and an unsigned literal ends at its "e": 12345678901e5 is 12345678901, and
/// 9234567e10 is 9234567, but 1234567e10 is a double. Hosts rely on addresses taking the unsigned
/// form by their length alone.
bool isUnsigned(std::string_view literal, bool hasFraction) {
  if (literal[0] == '-' || hasFraction) return false;
  if (literal.size() == lastTenDigitDouble.size()) return literal > lastTenDigitDouble;
  return literal.size() > lastTenDigitDouble.size();
}

/// Deliberate: a number that does not fit becomes the largest one.
std::uint64_t toUint64(std::string_view literal) {
  std::uint64_t value = 0;
  const auto read = std::from_chars(literal.data(), literal.data() + literal.size(), value);
  return read.ec == std::errc() ? value : std::numeric_limits<std::uint64_t>::max();
}

}  // namespace

Json Json::parse(const std::string &text, std::string &error, JsonParseMode mode) {
  return JsonParser(text, error, mode).parse();
}

Json JsonParser::parse() {
  Json value = parseValue(0);
  skip();
  if (!failed && !atEnd()) fail("unexpected trailing " + describe(*cursor));
  if (failed) return Json();
  return value;
}

Json JsonParser::parseValue(int depth) {
  checkDepth(depth);
  const char token = nextToken();
  return failed ? Json() : parseValue(token, depth);
}

Json JsonParser::parseValue(char token, int depth) {
  if (token == '-' || isDigit(token)) {
    --cursor;
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
  --cursor;
  const std::string_view found = rest().substr(0, word.size());
  if (found != word) {
    fail("parse error: expected " + std::string(word) + ", got " + std::string(found));
    return Json();
  }
  cursor += word.size();
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
  checkDepth(depth + 1);
  while (!failed) {
    items.push_back(parseValue(token, depth + 1));
    if (failed) break;
    token = nextToken();
    if (token == ']') return Json(std::move(items));
    if (token != ',') fail("expected ',' in list, got " + describe(token));
    token = nextToken();
  }
  return Json();
}

std::string JsonParser::parseString() {
  const char *start = cursor;
  while (isPlain[static_cast<unsigned char>(*cursor)]) ++cursor;
  if (*cursor == '"') return std::string(start, cursor++);  // most strings have no escapes

  std::string out(start, cursor);
  long pending = noCodePoint;
  while (!failed) {
    if (atEnd()) {
      fail("unexpected end of input in string");
      break;
    }
    const char byte = *cursor++;
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
  const char letter = *cursor++;
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
  // from_chars takes a sign too.
  const bool isHex = digits.size() == 4 && digits[0] != '-' && read.ec == std::errc() &&
                     read.ptr == digits.data() + digits.size();
  if (!isHex) {
    fail("bad \\u escape: " + std::string(digits));
    return;
  }
  if (isHighSurrogate(pending) && isLowSurrogate(codePoint)) {
    pending = (((pending & 0x3ff) << 10) | (codePoint & 0x3ff)) + 0x10000;
  } else {
    writeOut(out, pending);
    pending = codePoint;
  }
  cursor += digits.size();
}

Json JsonParser::parseNumber() {
  const char *const start = cursor;
  if (*cursor == '-') ++cursor;
  if (*cursor == '0' && isDigit(cursor[1])) {
    fail("leading 0s not permitted in numbers");
    return Json();
  }
  if (!isDigit(*cursor)) {
    fail("invalid " + describe(*cursor) + " in number");
    return Json();
  }
  skipDigits();
  const bool hasFraction = *cursor == '.';
  const bool hasExponent = *cursor == 'e' || *cursor == 'E';
  if (hasFraction || hasExponent) {
    skipFractionAndExponent();
  } else if (cursor - start <= shortInteger) {
    return Json(toInt32(start, cursor));
  }
  const std::string_view literal(start, cursor);
  if (isUnsigned(literal, hasFraction)) return Json(toUint64(literal));
  return Json(std::strtod(start, nullptr));
}

void JsonParser::skipFractionAndExponent() {
  if (*cursor == '.') {
    ++cursor;
    requireDigits("fractional part");
  }
  if (*cursor == 'e' || *cursor == 'E') {
    ++cursor;
    if (*cursor == '+' || *cursor == '-') ++cursor;
    requireDigits("exponent");
  }
}

void JsonParser::requireDigits(const char *part) {
  if (!isDigit(*cursor)) fail(std::string("at least one digit required in ") + part);
  skipDigits();
}

void JsonParser::skipDigits() {
  while (isDigit(*cursor)) ++cursor;
}

void JsonParser::skipComments() {
  while (skipComment()) skipWhitespace();
}

bool JsonParser::skipComment() {
  if (*cursor != '/') return false;
  ++cursor;
  if (atEnd()) {
    fail("unexpected end of input after start of comment");
    return false;
  }
  const char kind = *cursor++;
  if (kind == '/') {
    cursor += std::min(rest().find('\n'), rest().size());
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
  cursor += length + 2;
  return true;
}

void JsonParser::checkDepth(int depth) {
  if (depth > maximumDepth) fail("exceeded maximum nesting depth");
}

void JsonParser::fail(std::string message) {
  if (!failed) error = std::move(message);
  failed = true;
}
