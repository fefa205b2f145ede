#include "json/Json.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using std::string_literals::operator""s;
using Array = Json::array;
using Object = Json::object;

static_assert(!std::is_constructible_v<Json, int *>, "a pointer would quietly become a bool");

using enum JsonParseMode;

Json parsed(const std::string &text, JsonParseMode mode = Standard) {
  std::string error;
  const Json value = Json::parse(text, error, mode);
  EXPECT_EQ(error, "") << text;
  return value;
}

std::string lists(std::size_t depth, const std::string &innermost = "") {
  return std::string(depth, '[') + innermost + std::string(depth, ']');
}

std::string objects(int depth, std::string text) {
  while (depth-- > 0) text = "{\"\": " + text + "}";
  return text;
}

Json byteBlock(const std::vector<std::uint8_t> &values) {
  JsonBytes bytes(values.size());
  std::copy(values.begin(), values.end(), bytes.data());
  return Json(std::move(bytes));
}

TEST(Json, ErrorsAreReported) {
  struct Row {
    std::string message;
    std::vector<std::string> texts;
    JsonParseMode mode = Standard;
  };
  const std::string end = "unexpected end of input";
  const Row rows[] = {
      {end, {"", " \r\n\t", "[", "[1", "[1,", "{", "{\"a\"", "{\"a\":"}},
      {end + " in string", {"\"abc", "\"abc\\", "\"\\n"}},
      {"expected value, got (0)", {"\0"s}},
      {"expected value, got (-61)", {"\xc3\xa9"}},
      {"expected value, got '\x7f' (127)", {"\x7f"}},
      {"expected value, got '/' (47)", {"// x", "/* x */"}},
      {"expected ',' in list, got '2' (50)", {"[1 2]"}},
      {"expected '\"' in object, got '}' (125)", {"{\"a\":1,}"}},
      {"expected ':' in object, got '1' (49)", {"{\"a\" 1}"}},
      {"expected ',' in object, got '\"' (34)", {"{\"a\":1 \"b\":2}"}},
      {"parse error: expected null, got nul", {"nul"}},
      {"parse error: expected true, got tru ", {"tru e"}},
      {"parse error: expected false, got fals}", {"{\"a\":fals}"}},
      {"unexpected trailing 'x' (120)", {"nullx"}},
      {"leading 0s not permitted in numbers", {"01", "-00", "09"}},
      {"invalid (0) in number", {"-"}},
      {"invalid ' ' (32) in number", {"- 1"}},
      {"at least one digit required in fractional part", {"1.", "1.e5"}},
      {"at least one digit required in exponent", {"1e", "1e+", "1.5E-x"}},
      {"unescaped (10) in string", {"\"a\nb\""}},
      {"unescaped (31) in string", {"\"\x1f\"", "\"\\n\x1f\""}},
      {"bad \\u escape: 123", {"\"\\u123"}},
      {"bad \\u escape: -123", {"\"\\u-123\""}},
      {"bad \\u escape: 12g4", {"\"\\u12g4\""}},
      // The first error stays.
      {"invalid escape character 'q' (113)", {"\"\\q\"", "[\"\\q\", \"\\u12\""}},
      {"exceeded maximum nesting depth", {lists(202), lists(201, "1"), objects(201, "1")}},
      {end + " after start of comment", {"/", "1 /"}, Comments},
      {end + " inside multi-line comment", {"/*", "/*/"}, Comments},
      {"malformed comment", {"/x", "[/x"}, Comments},
  };
  for (const auto &[message, texts, mode] : rows)
    for (const std::string &text : texts) {
      std::string error;
      EXPECT_EQ(Json::parse(text, error, mode).type(), JsonType::Null) << text;
      EXPECT_EQ(error, message) << text;
    }
}

TEST(Json, ValuesAreReadAndWritten) {
  struct Row {
    std::string text, written;
    JsonParseMode mode = Standard;
  };
  const Row rows[] = {
      {" \t\r\n[1,[ ],null,{\"k\":false},true,{ }] ", "[1, [], null, {\"k\": false}, true, {}]"},
      {R"({"b":1,"B":3,"":4,"a\n":5,"é":6})", R"({"": 4, "B": 3, "a\n": 5, "b": 1, "é": 6})"},
      // Of equal keys the last one stays, whether they are neighbours or not.
      {R"({"a": 1, "a": 2})", R"({"a": 2})"},
      {R"({"a":1,"b":0,"a":2})", R"({"a": 2, "b": 0})"},
      {lists(201), lists(201)},
      {lists(200, "1"), lists(200, "1")},
      {objects(200, "1"), objects(200, "1")},
      {"// a\n [1, /* b */ 2] // c", "[1, 2]", Comments},
      {"/**//* * / */{ // x\n}/* */", "{}", Comments},
      // What is no escape in the text that is written, and what becomes one.
      {R"("\b\f\n\r\t\"\\\/\u0000\u0010\u001f")", R"("\b\f\n\r\t\"\\/\u0000\u0010\u001f")"},
      {"\"\x7f\x80\xff\xe0\xa0\x80\"", "\"\x7f\x80\xff\xe0\xa0\x80\""},
      {"\"\\n\x7f\xff\xe2\x80\xa8|\xe2\x80\xa9\"", "\"\\n\x7f\xff\\u2028|\\u2029\""},
      {"\"\xe2\x80\xaa\xe2\x80\\n\xe2\"", "\"\xe2\x80\xaa\xe2\x80\\n\xe2\""},
      {R"("\u007f\u0080\u07ff\u0800\uffffF")",
       "\"\x7f\xc2\x80\xdf\xbf\xe0\xa0\x80\xef\xbf\xbf\x46\""},
      {R"("\ud800\udc00\udbff\uDFFF")", "\"\xf0\x90\x80\x80\xf4\x8f\xbf\xbf\""},
      // A surrogate without its partner keeps its three-byte form.
      {R"("\udc00")", "\"\xed\xb0\x80\""},
      {R"("\ud83d\ud83d\ude00")", "\"\xed\xa0\xbd\xf0\x9f\x98\x80\""},
      {R"("\ud83d\ue000\ud83d\udbff")", "\"\xed\xa0\xbd\xee\x80\x80\xed\xa0\xbd\xed\xaf\xbf\""},
      {R"("\ud7ff\udc00\udc00\ud83dx")", "\"\xed\x9f\xbf\xed\xb0\x80\xed\xb0\x80\xed\xa0\xbdx\""},
      {R"("\ud83d\n\ude00\ud83d")", "\"\xed\xa0\xbd\\n\xed\xb8\x80\xed\xa0\xbd\""},
  };
  for (const auto &[text, written, mode] : rows) EXPECT_EQ(parsed(text, mode).dump(), written);
  EXPECT_EQ(parsed(R"("a\u0000b")").stringValue(), "a\0b"s);
  std::string out = "before ";
  Json(Array{true}).dump(out);
  EXPECT_EQ(out, "before [true]");
}

TEST(Json, NumbersTakeTheirForm) {
  // A form shows in the conversions: a negative integer keeps its bits, a negative double gives 0;
  // an unsigned number gives its low 32 bits, a large double the largest int.
  struct Row {
    std::string text, written;
    std::int32_t int32;
    std::uint64_t uint64;
  };
  constexpr std::int32_t int32Max = 0x7fffffff, int32Min = -int32Max - 1;
  constexpr std::uint64_t uint64Max = 0xffffffffffffffff;
  const Row rows[] = {
      {"-0", "0", 0, 0},
      {"-1", "-1", -1, uint64Max},
      {"255", "255", 255, 255},
      {"256", "256", 256, 256},
      {"-12345678", "-12345678", -12345678, 18446744073697205938u},
      {"-123456789", "-123456789", -123456789, 0},
      {"1500000000", "1500000000", 1500000000, 1500000000},
      {"4294967295", "4294967295", int32Max, 4294967295},
      {"4294967296", "4294967296", 0, 4294967296},
      {"10000000000", "10000000000", 1410065408, 10000000000},
      {"18446744073709551616", "18446744073709551615", -1, uint64Max},
      {"18446744073709551616.0", "1.8446744073709552e+19", int32Max, uint64Max},
      {"13835058055282163712.0", "1.3835058055282164e+19", int32Max, 0xc000000000000000},
      {"-18446744073709551616", "-1.8446744073709552e+19", int32Min, 0},
      {"-0.0", "-0", 0, 0},
      {"-2.9", "-2.8999999999999999", -2, 0},
      {"-1.5e2", "-150", -150, 0},
      {"1E+2", "100", 100, 100},
      {"25e-1", "2.5", 2, 2},
      {"1e999", "null", int32Max, uint64Max},
      {"-2.2250738585072014e-308", "-2.2250738585072014e-308", 0, 0},
      {"9999999e99", "9999999", 9999999, 9999999},
      {"12345678901e5", "12345678901", -539222987, 12345678901},
      {"1234567e99", "1.2345670000000001e+105", int32Max, uint64Max},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.text);
    const Json value = parsed(row.text);
    EXPECT_EQ(value.dump(), row.written);
    EXPECT_EQ(value.intValue(), row.int32);
    EXPECT_EQ(value.uint64Value(), row.uint64);
    if (row.written != "null") EXPECT_EQ(value.numberValue(), std::stod(row.written));
  }
  const Json number(std::nan(""));
  EXPECT_EQ(number, Json(number));
  EXPECT_NE(number, Json(std::nan("")));
  EXPECT_EQ(number.intValue(), 0);
  EXPECT_EQ(number.uint64Value(), 0u);
}

TEST(Json, LongTextsAreWhole) {
  // Each piece must survive the end of the writer's buffer, which holds 4096 bytes.
  constexpr std::size_t size = 1300;
  std::fill_n(JsonBytes(size).data(), size, 0xff);  // the allocator may return this block again
  JsonBytes bytes(size);
  EXPECT_EQ(std::count(bytes.data(), bytes.data() + size, 0), size);
  std::string byteTexts;
  for (std::size_t at = 0; at < size; ++at) {
    bytes.data()[at] = static_cast<std::uint8_t>(at < 600 ? 255 - at % 10 : at);
    byteTexts += (at > 0 ? ", " : "[") + std::to_string(bytes.data()[at]);
  }
  EXPECT_EQ(bytes.textSize(), byteTexts.size() + 1);
  EXPECT_EQ(JsonBytes(0).textSize(), 2u);
  const std::pair<Json, std::string> pieces[] = {
      {"\"\\\n\x01\xe2\x80\xa8 and more", R"("\"\\\n\u0001\u2028 and more")"},
      {std::string(9000, 'y'), '"' + std::string(9000, 'y') + '"'},
      {Array{200, -2147483647 - 1}, "[200, -2147483648]"},
      {~std::uint64_t{0}, "18446744073709551615"},
      {Object{{"key", -1.0 / 3}}, "{\"key\": -0.33333333333333331}"},
      {JsonBytes(0), "[]"},
      {JsonBytes(1), "[0]"},
      {std::move(bytes), byteTexts + "]"},
  };
  for (const auto &[value, text] : pieces)
    for (std::size_t length = 2000; length < 4130; length += length == 2039 ? 2021 : 1) {
      const std::string filler(length, 'x');
      EXPECT_EQ(Json(Array{filler, value, filler, value}).dump(),
                "[\"" + filler + "\", " + text + ", \"" + filler + "\", " + text + "]");
    }
}

TEST(Json, AccessorsOfAnotherKindAnswerNothing) {
  const std::pair<Json, JsonType> rows[] = {
      {Json(), JsonType::Null},
      {true, JsonType::Bool},
      {1.5, JsonType::Number},
      {"12", JsonType::String},
      {Array{1, "x"}, JsonType::Array},
      {byteBlock({1, 200}), JsonType::Array},
      {Object{{"a", 1}, {"c", true}}, JsonType::Object},
  };
  for (const auto &[value, type] : rows) {
    SCOPED_TRACE(value.dump());
    const bool isArray = type == JsonType::Array, isObject = type == JsonType::Object;
    EXPECT_EQ(value.type(), type);
    EXPECT_EQ(value.numberValue(), type == JsonType::Number ? 1.5 : 0);
    EXPECT_EQ(value.intValue(), type == JsonType::Number ? 1 : 0);
    EXPECT_EQ(value.uint64Value(), type == JsonType::Number ? 1u : 0u);
    EXPECT_EQ(value.boolValue(), type == JsonType::Bool);
    EXPECT_EQ(value.stringValue(), type == JsonType::String ? "12" : "");
    EXPECT_EQ(value.arrayItems().size(), isArray ? 2u : 0u);
    EXPECT_EQ(value.objectItems().size(), isObject ? 2u : 0u);
    EXPECT_EQ(value[0], isArray ? Json(1) : Json());
    EXPECT_EQ(value[1], isArray ? value.arrayItems()[1] : Json());
    EXPECT_EQ(value[2], Json());
    EXPECT_EQ(value["a"], isObject ? Json(1) : Json());
    for (const char *missing : {"", "b", "d"}) EXPECT_EQ(value[missing], Json());
  }
}

TEST(Json, OrderIsByKindThenByValue) {
  // The values of a row are equal, whatever their form, and less than those of all later rows.
  const std::vector<Json> rows[] = {
      {Json()},
      {-1},
      {0, -0.0},
      {0.5},
      {1, std::uint64_t{1}, 1.0},
      {false},
      {true},
      {"a", std::string("a")},
      {"a\x7f"},
      {"a\xff"},  // bytes compare unsigned
      {"b"},
      {Array{}},
      {Array{1}, Array{1.0}},
      {byteBlock({1, 1})},
      {byteBlock({1, 255}), Array{1.0, 255}},
      {Object{}},
      {Object{{"a", 1}}, Object{{"a", 1.0}}},
      {Object{{"a", 1}, {"b", Json()}}},
      {Object{{"a", 2}}},
      {Object{{"b", 0}}},
  };
  for (const auto &lefts : rows)
    for (const auto &rights : rows)
      for (const Json &left : lefts)
        for (const Json &right : rights) {
          SCOPED_TRACE(left.dump() + " and " + right.dump());
          EXPECT_EQ(left < right, &lefts < &rights);
          EXPECT_EQ(left > right, &lefts > &rights);
          EXPECT_EQ(left <= right, &lefts <= &rights);
          EXPECT_EQ(left >= right, &lefts >= &rights);
          EXPECT_EQ(left == right, &lefts == &rights);
          EXPECT_EQ(left != right, &lefts != &rights);
        }
}

TEST(Json, ObjectsAreSortedHoweverTheyAreBuilt) {
  std::vector<std::string> keys{"", "a", "ab", "b", "b\xff"};
  do {
    Object set;
    std::vector<Object::value_type> list;
    // Each key several times, enough for a sort that is not stable to show. The last value stays.
    for (const int round : {1, 2, 3, 4})
      for (const std::string &key : keys) {
        const Json value(static_cast<std::int32_t>(key.size()) * round);
        set[key] = value;
        list.emplace_back(key, value);
      }
    const std::string expected = "{\"\": 0, \"a\": 4, \"ab\": 8, \"b\": 4, \"b\xff\": 8}";
    ASSERT_EQ(Json(set).dump(), expected);
    ASSERT_EQ(Json(Object(list)).dump(), expected);
  } while (std::next_permutation(keys.begin(), keys.end()));
}

}  // namespace
