// Texts through the JSON parser and back, and what it accepts and reads compared with
// nlohmann-json.

#include "json/Json.h"

#include <cmath>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Check.h"

namespace {

/// Values may stand this deep; the outermost one has depth 0.
constexpr int deepest = 200;

std::optional<Json> parse(const std::string &text, JsonParseMode mode = JsonParseMode::Standard) {
  std::string error;
  Json value = Json::parse(text, error, mode);
  if (error.empty()) return value;
  check(value.type() == JsonType::Null, "a failure gives null");
  check(error.find('\n') == std::string::npos || text.find('\n') != std::string::npos,
        "an error is one line, but for bytes of the text");
  return std::nullopt;
}

// --- Through the parser, the writer and the parser again
// --------------------------------------------

/// What is left of a value once it has been written: JSON has no word for an infinity, which
/// becomes null, and a negative zero without fraction is the integer 0.
Json asWritten(const Json &value) {
  switch (value.type()) {
    case JsonType::Number:
      if (!std::isfinite(value.numberValue())) return Json();
      return value.numberValue() == 0 ? Json(0) : value;
    case JsonType::Array: {
      Json::array items;
      for (const Json &item : value.arrayItems()) items.push_back(asWritten(item));
      return Json(std::move(items));
    }
    case JsonType::Object: {
      Json::object members;
      for (const auto &[key, member] : value.objectItems()) members[key] = asWritten(member);
      return Json(std::move(members));
    }
    default: return value;
  }
}

void checkNumber(const Json &value) {
  const double number = value.numberValue();
  if (number >= -2147483648.0 && number <= 2147483647.0)
    check(value.intValue() == std::trunc(number), "intValue truncates");
  if (number >= 0 && number < 9007199254740992.0)
    check(static_cast<double>(value.uint64Value()) == std::trunc(number), "uint64Value truncates");
}

/// Every accessor of every value within.
void checkAccessors(const Json &value) {
  if (value.type() == JsonType::Number) checkNumber(value);
  const std::vector<Json> &items = value.arrayItems();
  for (std::size_t index = 0; index < items.size(); ++index) {
    check(value[index] == items[index] || items[index] != items[index], "an index finds its item");
    checkAccessors(items[index]);
  }
  check(value[items.size()].type() == JsonType::Null, "behind the last item is null");
  for (const auto &[key, member] : value.objectItems()) {
    check(value[key] == member, "a key finds its member");
    checkAccessors(member);
  }
}

void checkRoundTrip(const Json &value) {
  const std::string text = value.dump();
  check(text.find('\n') == std::string::npos, "a text is one line");
  const std::optional<Json> again = parse(text);
  check(again.has_value(), "what is written can be read");
  const Json expected = asWritten(value);
  check(*again == expected, "a value survives writing and reading");
  check(again->dump() == expected.dump(), "the second text is the first one");
}

// --- The other parser
// -------------------------------------------------------------------------------

/// Builds a Json from what nlohmann-json reads, with the numbers in the forms that the protocol's
/// page gives them.
class Reader : public nlohmann::json_sax<nlohmann::json> {
 public:
  Json result() { return open.front().items.front(); }

  bool null() override { return add(Json()); }
  bool boolean(bool value) override { return add(Json(value)); }
  bool number_integer(std::int64_t value) override {
    if (std::to_string(value).size() <= 9) return add(Json(static_cast<std::int32_t>(value)));
    return add(Json(static_cast<double>(value)));
  }
  bool number_unsigned(std::uint64_t value) override {
    if (value <= 999999999) return add(Json(static_cast<std::int32_t>(value)));
    return add(value > 4294967295 ? Json(value) : Json(static_cast<double>(value)));
  }
  /// A long literal without sign and fraction is an integer: the largest one if it is larger, and
  /// without its exponent if it has one.
  bool number_float(double value, const std::string &literal) override {
    if (literal.size() < 10 || literal[0] == '-' || literal.find('.') != std::string::npos ||
        (literal.size() == 10 && literal < "4294967296"))
      return add(Json(value));
    return add(Json(std::uint64_t{std::strtoull(literal.c_str(), nullptr, 10)}));
  }
  bool string(std::string &value) override { return add(Json(value)); }
  bool binary(nlohmann::json::binary_t &) override { return false; }
  bool start_object(std::size_t) override { return start(); }
  bool start_array(std::size_t) override { return start(); }
  bool key(std::string &key) override {
    open.back().key = key;
    return true;
  }
  bool end_object() override {
    Json value(std::move(open.back().members));
    open.pop_back();
    return add(std::move(value));
  }
  bool end_array() override {
    Json value(std::move(open.back().items));
    open.pop_back();
    return add(std::move(value));
  }
  bool parse_error(std::size_t, const std::string &, const nlohmann::detail::exception &) override {
    return false;
  }

 private:
  struct Container {
    std::optional<std::string> key;
    Json::object members;
    Json::array items;
  };

  bool start() {
    open.emplace_back();
    return true;
  }
  bool add(Json value) {
    Container &container = open.back();
    if (container.key) {
      container.members[*container.key] = std::move(value);
    } else {
      container.items.push_back(std::move(value));
    }
    return true;
  }

  std::vector<Container> open{1};  ///< the outermost one holds the whole text's value
};

std::optional<Json> referenceParse(const std::string &text) {
  Reader reader;
  if (!nlohmann::json::sax_parse(text, &reader)) return std::nullopt;
  return reader.result();
}

// --- The differences
// --------------------------------------------------------------------------------

bool isDigit(char byte) { return byte >= '0' && byte <= '9'; }

/// The code unit of the surrogate escape at `position`, 0 when none is there.
unsigned long surrogateAt(const std::string &text, std::size_t position) {
  const std::string digits = position + 6 <= text.size() ? text.substr(position + 2, 4) : "";
  if (digits.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) return 0;
  if (text.compare(position, 2, "\\u") != 0) return 0;
  const unsigned long unit = std::strtoul(digits.c_str(), nullptr, 16);
  return unit >= 0xd800 && unit <= 0xdfff ? unit : 0;
}

/// A surrogate without its partner is kept, for a host that sends one gets it back; nlohmann-json
/// refuses it. Here it becomes a letter.
std::string withoutLoneSurrogates(std::string text) {
  for (std::size_t at = 0; at < text.size(); at += 2) {
    at = text.find('\\', at);
    if (at == std::string::npos) break;
    const unsigned long unit = surrogateAt(text, at);
    const unsigned long next = unit != 0 ? surrogateAt(text, at + 6) : 0;
    if (unit != 0 && unit < 0xdc00 && next >= 0xdc00) {
      at += 10;
    } else if (unit != 0) {
      text.replace(at + 2, 4, "0041");
    }
  }
  return text;
}

/// A string's bytes are not checked for UTF-8, as file names need not be any; nlohmann-json refuses
/// what is none, and skips a byte order mark, which is refused here as any byte from 128 up is
/// outside strings. The letter is wrong outside strings and right inside them, like such a byte.
std::string withoutHighBytes(std::string text) {
  for (char &byte : text)
    if (static_cast<unsigned char>(byte) >= 0x80) byte = 'x';
  return text;
}

/// A zero byte is a byte like any other control character, and right nowhere; nlohmann-json takes
/// it as the end.
std::string withoutZeroBytes(std::string text) {
  for (char &byte : text)
    if (byte == '\0') byte = '\1';
  return text;
}

/// For each byte whether it belongs to a string or its quotes.
std::vector<bool> bytesOfStrings(const std::string &text) {
  std::vector<bool> belongs(text.size());
  bool inString = false;
  for (std::size_t at = 0; at < text.size(); ++at) {
    belongs[at] = inString || text[at] == '"';
    if (inString && text[at] == '\\' && at + 1 < text.size()) {
      belongs[++at] = true;
    } else if (text[at] == '"') {
      inString = !inString;
    }
  }
  return belongs;
}

/// A number that no double can hold is an infinity or the largest integer; nlohmann-json refuses
/// it. No digit behind the second of a row decides whether a text is JSON.
std::string withShortNumbers(const std::string &text) {
  const std::vector<bool> inString = bytesOfStrings(text);
  std::string out;
  for (std::size_t at = 0; at < text.size(); ++at) {
    const std::size_t size = out.size();
    const bool isThird = size >= 2 && isDigit(out[size - 1]) && isDigit(out[size - 2]);
    if (inString[at] || !isDigit(text[at]) || !isThird) out += text[at];
  }
  return out;
}

/// What nlohmann-json must say the same of, but for the depth.
std::string withoutDifferences(const std::string &text) {
  return withoutLoneSurrogates(withShortNumbers(withoutHighBytes(withoutZeroBytes(text))));
}

/// Whether a value stands too deep; nlohmann-json has no limit. Only asked of a text that is JSON.
bool isTooDeep(const std::string &text) {
  constexpr std::string_view neverValues = " \t\r\n]}";
  const std::vector<bool> inString = bytesOfStrings(text);
  int depth = 0;
  for (std::size_t at = 0; at < text.size(); ++at) {
    const char byte = text[at];
    if (depth > deepest && neverValues.find(byte) == std::string_view::npos) return true;
    if (inString[at]) continue;
    depth += byte == '[' || byte == '{';
    depth -= byte == ']' || byte == '}';
  }
  return false;
}

/// The text with a space for each comment. One that is not closed stays: a slash is no JSON.
std::string withoutComments(const std::string &text) {
  std::string out;
  bool inString = false;
  for (std::size_t at = 0; at < text.size(); ++at) {
    const std::string_view rest = std::string_view(text).substr(at);
    if (!inString && (rest.starts_with("//") || rest.starts_with("/*"))) {
      const bool toLineEnd = rest[1] == '/';
      const std::size_t end = rest.find(toLineEnd ? "\n" : "*/", 2);
      if (end == std::string_view::npos && !toLineEnd) return out += rest;
      out += ' ';
      if (end == std::string_view::npos) return out;
      at += toLineEnd ? end : end + 1;
      continue;
    }
    out += text[at];
    if (inString && text[at] == '\\' && ++at < text.size()) {
      out += text[at];
    } else if (text[at] == '"') {
      inString = !inString;
    }
  }
  return out;
}

/// Whether a number is kept as a double or as an integer only shows in what other numbers it gives.
void checkSameForms(const Json &value, const Json &expected) {
  check(value.intValue() == expected.intValue(), "both give the same int");
  check(value.uint64Value() == expected.uint64Value(), "both give the same unsigned number");
  for (std::size_t index = 0; index < value.arrayItems().size(); ++index)
    checkSameForms(value[index], expected[index]);
  for (const auto &[key, member] : value.objectItems()) checkSameForms(member, expected[key]);
}

void checkSame(const std::optional<Json> &value, const std::optional<Json> &expected) {
  check(value.has_value() == expected.has_value(), "both accept or both refuse");
  if (!value) return;
  check(value->dump() == expected->dump(), "both read the same");
  checkSameForms(*value, *expected);
}

void checkWithReference(const std::string &text, const std::optional<Json> &value) {
  const std::string same = withoutDifferences(text);
  std::optional<Json> expected = referenceParse(same);
  if (expected && isTooDeep(text)) expected.reset();
  check(value.has_value() == expected.has_value(), "what is JSON is accepted, nothing else");
  checkSame(parse(same), expected);
  // Where there is no difference, the text as it stands.
  if (value && nlohmann::json::accept(text)) checkSame(value, referenceParse(text));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  const std::string text(reinterpret_cast<const char *>(data), size);
  const std::optional<Json> value = parse(text);
  checkWithReference(text, value);
  const std::optional<Json> commented = parse(text, JsonParseMode::Comments);
  checkSame(commented, parse(withoutComments(text)));
  if (value) check(commented.has_value(), "what is JSON is so with comments allowed");
  if (!commented) return 0;
  checkAccessors(*commented);
  checkRoundTrip(*commented);
  check(referenceParse(withoutDifferences(commented->dump())).has_value(),
        "what is written is JSON");
  return 0;
}
