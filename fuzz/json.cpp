// The JSON parser and the writer. The accepted texts and their values are compared with those of
// nlohmann-json.

#include "json/Json.h"

#include <algorithm>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "Check.h"

namespace {

constexpr int maximumDepth = 200;

std::optional<Json> parse(const std::string &text, JsonParseMode mode = JsonParseMode::Standard) {
  std::string error;
  Json value = Json::parse(text, error, mode);
  if (error.empty()) return value;
  check(value.type() == JsonType::Null, "a failure gives null");
  check(error.find('\n') == std::string::npos || text.find('\n') != std::string::npos,
        "an error is one line, except for bytes of the text");
  return std::nullopt;
}

void checkNumber(const Json &value, const nlohmann::json &other) {
  // A long literal without a fraction ends at its exponent. Its value is at most 2^64 - 1.
  const bool isUnsigned = value.dump().find_first_not_of("0123456789") == std::string::npos;
  const double number = value.numberValue();
  check(number == other.get<double>() || (other.is_number_float() && isUnsigned),
        "a number is read");
  const std::int32_t int32 = value.intValue();
  const std::uint64_t uint64 = value.uint64Value();
  if (number >= 0 && number < 0x1p31)
    check(
        int32 == static_cast<std::int32_t>(number) && uint64 == static_cast<std::uint64_t>(number),
        "a number is truncated");
}

void checkSame(const Json &value, const nlohmann::json &other) {
  if (other.is_null()) {
    check(value == Json(), "null is read");
  } else if (other.is_boolean()) {
    check(value == Json(other.get<bool>()), "a bool is read");
  } else if (other.is_string()) {
    check(value == Json(other.get<std::string>()), "a string is read");
  } else if (other.is_array()) {
    check(value.arrayItems().size() == other.size(), "an array has all items");
    for (std::size_t index = 0; index < other.size(); ++index)
      checkSame(value[index], other[index]);
    check(value[other.size()] == Json(), "an index after the last item gives null");
  } else if (other.is_object()) {
    check(value.objectItems().size() == other.size(), "an object has all members");
    for (const auto &[key, member] : other.items()) {
      checkSame(value[key], member);
      check(value[key + '~'] == Json() || other.contains(key + '~'), "a missing key is null");
    }
  } else {
    checkNumber(value, other);
  }
}

/// Returns the number for a literal, by the rules of docs/protocol.md.
Json expectedNumber(const std::string &literal) {
  if (literal.find_first_of(".eE") == std::string::npos && literal.size() <= 9)
    return Json(std::atoi(literal.c_str()));
  const bool isLong = literal.size() > 10 || (literal.size() == 10 && literal > "4294967295");
  if (isLong && literal[0] != '-' && literal.find('.') == std::string::npos)
    return Json(std::uint64_t{std::strtoull(literal.c_str(), nullptr, 10)});
  return Json(std::strtod(literal.c_str(), nullptr));
}

void collectScalars(const Json &value, std::vector<Json> &scalars) {
  if (value.type() != JsonType::Array) scalars.push_back(value);
  for (const Json &item : value.arrayItems()) collectScalars(item, scalars);
}

/// Checks each number exactly, if the text holds only numbers in arrays.
void checkNumbers(std::string text, const Json &value) {
  constexpr std::string_view betweenNumbers = "[], \t\r\n", inNumbers = "0123456789+-.eE";
  for (char &byte : text) {
    if (betweenNumbers.find(byte) != std::string_view::npos) byte = ' ';
    if (byte != ' ' && inNumbers.find(byte) == std::string_view::npos) return;
  }
  std::vector<Json> scalars;
  collectScalars(value, scalars);
  std::istringstream literals(text);
  std::string literal;
  for (const Json &scalar : scalars) {
    literals >> literal;
    const Json expected = expectedNumber(literal);
    check(scalar.dump() == expected.dump(), "a number is written in its form");
    check(scalar.intValue() == expected.intValue(), "a number converts to an int");
    check(scalar.uint64Value() == expected.uint64Value(), "a number converts to 64 bits");
  }
}

int depth(const nlohmann::json &value) {
  int deepest = 0;
  if (value.is_structured())
    for (const auto &item : value) deepest = std::max(deepest, 1 + depth(item));
  return deepest;
}

/// Whether nlohmann-json's error is about a text that lldb-helper accepts on purpose: strings that
/// are not Unicode, and numbers that do not fit a double.
bool isRefusedOnPurpose(const nlohmann::json::exception &error) {
  const std::string_view message = error.what();
  return error.id == 406 || message.find("surrogate") != std::string_view::npos ||
         message.find("ill-formed UTF-8") != std::string_view::npos;
}

void checkAgreement(const std::string &text, const std::optional<Json> &value, bool allowComments) {
  // nlohmann-json ends a text at a zero byte, skips a byte order mark, and also ends a comment at a
  // carriage return.
  if (text.find('\0') != std::string::npos || text.starts_with('\xef')) {
    check(!value || allowComments, "a zero byte or a byte order mark is refused");
    return;
  }
  if (allowComments && text.find('\r') != std::string::npos) return;
  try {
    const auto other = nlohmann::json::parse(text, nullptr, true, allowComments);
    check(value.has_value() == (depth(other) <= maximumDepth), "valid JSON is accepted");
    if (value) checkSame(*value, other);
  } catch (const nlohmann::json::exception &error) {
    check(!value || isRefusedOnPurpose(error), "invalid JSON is refused");
  }
}

void checkRoundTrip(const Json &value) {
  const std::string text = value.dump();
  check(std::all_of(text.begin(), text.end(), [](unsigned char byte) { return byte >= ' '; }) &&
            text.find("\xe2\x80\xa8") == std::string::npos,
        "a text is one line");
  const std::optional<Json> again = parse(text);
  check(again.has_value(), "a written text can be parsed");
  // JSON cannot express infinity. It becomes null.
  check(*again == value || text.find("null") != std::string::npos,
        "a written value parses to the same value");
  checkAgreement(text, again, false);
  // The writer has a buffer of 4096 bytes. It ends in the middle of this value.
  const std::string filler(4092 - std::min<std::size_t>(text.size() / 2, 4000), 'x');
  check(Json(Json::array{filler, value}).dump() == "[\"" + filler + "\", " + text + ']',
        "a value is written the same wherever the buffer ends");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  const std::string text(reinterpret_cast<const char *>(data), size);
  const std::optional<Json> value = parse(text);
  checkAgreement(text, value, false);
  const std::optional<Json> commented = parse(text, JsonParseMode::Comments);
  checkAgreement(text, commented, true);
  if (value) {
    check(commented == value, "a text without comments has the same value in both modes");
    checkNumbers(text, *value);
  }
  if (commented) checkRoundTrip(*commented);
  return 0;
}
