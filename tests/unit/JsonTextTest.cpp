#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "json/Json.h"

namespace {

using std::string_literals::operator""s;

using Texts = std::vector<std::string>;

constexpr auto standard = JsonParseMode::Standard;
constexpr auto comments = JsonParseMode::Comments;

Json parsed(const std::string &text, JsonParseMode mode = standard) {
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

TEST(JsonText, ErrorsAreReported) {
  struct Row {
    std::string message;
    Texts texts;
    JsonParseMode mode = standard;
  };
  const std::string end = "unexpected end of input";
  const Row rows[] = {
      {end, {"", " \r\n\t", "[", "[1", "[1,", "{", "{\"a\"", "{\"a\":"}},
      {end + " in string", {"\"abc", "\"abc\\", "\"\\n"}},
      {"expected value, got (11)", {"\v1"}},
      {"expected value, got (0)", {"\0"s}},
      {"expected value, got (-61)", {"\xc3\xa9"}},
      {"expected value, got '\x7f' (127)", {"\x7f"}},
      {"expected value, got '+' (43)", {"+1"}},
      {"expected value, got ']' (93)", {"[1,]"}},
      {"expected value, got '/' (47)", {"// x", "/* x */"}},
      {"expected ',' in list, got '2' (50)", {"[1 2]"}},
      {"expected '\"' in object, got '1' (49)", {"{1:2}"}},
      {"expected '\"' in object, got '}' (125)", {"{\"a\":1,}"}},
      {"expected ':' in object, got '1' (49)", {"{\"a\" 1}"}},
      {"expected ',' in object, got '\"' (34)", {"{\"a\":1 \"b\":2}"}},
      {"parse error: expected null, got nul", {"nul"}},
      {"parse error: expected true, got tru ", {"tru e"}},
      {"parse error: expected false, got fals}", {"{\"a\":fals}"}},
      {"unexpected trailing 'x' (120)", {"nullx"}},
      {"unexpected trailing (-1)", {"1 \xff"}},
      {"unexpected trailing (0)", {"1\0 "s}},
      {"leading 0s not permitted in numbers", {"01", "-00", "09"}},
      {"invalid (0) in number", {"-"}},
      {"invalid ' ' (32) in number", {"- 1"}},
      {"invalid '-' (45) in number", {"--1"}},
      {"at least one digit required in fractional part", {"1.", "1.e5"}},
      {"at least one digit required in exponent", {"1e", "1e+", "1.5E-x"}},
      {"unescaped (10) in string", {"\"a\nb\""}},
      {"unescaped (0) in string", {"\"a\0b\""s}},
      {"unescaped (31) in string", {"\"\x1f\"", "\"\\n\x1f\""}},
      {"bad \\u escape: ", {"\"\\u"}},
      {"bad \\u escape: 123", {"\"\\u123"}},
      {"bad \\u escape: -123", {"\"\\u-123\""}},
      {"bad \\u escape:  123", {"\"\\u 123\""}},
      {"bad \\u escape: 12g4", {"\"\\u12g4\""}},
      // The first error stays.
      {"invalid escape character 'q' (113)", {"\"\\q\"", "[\"\\q\", \"\\u12\""}},
      {"invalid escape character (-128)", {"\"\\\x80\""}},
      {"exceeded maximum nesting depth",
       {lists(202), lists(201, "1"), lists(100000), objects(201, "1")}},
      {end + " after start of comment", {"/", "1 /"}, comments},
      {end + " inside multi-line comment", {"/*", "/*/", "/* *"}, comments},
      {"malformed comment", {"/x", "[/x"}, comments},
      {end, {"// only"}, comments},
  };
  for (const auto &[message, texts, mode] : rows)
    for (const std::string &text : texts) {
      std::string error;
      EXPECT_EQ(Json::parse(text, error, mode).type(), JsonType::Null) << text;
      EXPECT_EQ(error, message) << text;
    }
}

TEST(JsonText, ContainersAreReadAndWritten) {
  struct Row {
    std::string text, written;
    JsonParseMode mode = standard;
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
      {"// a\n [1, /* b */ 2] // c", "[1, 2]", comments},
      {"/**//* * / */{ // x\n}/* */", "{}", comments},
  };
  for (const Row &row : rows) EXPECT_EQ(parsed(row.text, row.mode).dump(), row.written);
  std::string out = "before ";
  Json(Json::array{true}).dump(out);
  EXPECT_EQ(out, "before [true]");
}

TEST(JsonText, NumbersTakeTheirForm) {
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
      {"123456789", "123456789", 123456789, 123456789},
      {"-12345678", "-12345678", -12345678, 18446744073697205938u},
      {"-123456789", "-123456789", -123456789, 0},
      {"1500000000", "1500000000", 1500000000, 1500000000},
      {"2147483648", "2147483648", int32Max, 2147483648},
      {"4294967294", "4294967294", int32Max, 4294967294},
      {"4294967295", "4294967295", int32Max, 4294967295},
      {"4294967296", "4294967296", 0, 4294967296},
      {"5000000000", "5000000000", 705032704, 5000000000},
      {"10000000000", "10000000000", 1410065408, 10000000000},
      {"18446744073709551615", "18446744073709551615", -1, uint64Max},
      {"18446744073709551616", "18446744073709551615", -1, uint64Max},
      {"18446744073709551616.0", "1.8446744073709552e+19", int32Max, uint64Max},
      {"13835058055282163712.0", "1.3835058055282164e+19", int32Max, 0xc000000000000000},
      {"-18446744073709551616", "-1.8446744073709552e+19", int32Min, 0},
      {"-2147483649", "-2147483649", int32Min, 0},
      {"0.1", "0.10000000000000001", 0, 0},
      {"-0.0", "-0", 0, 0},
      {"2.9", "2.8999999999999999", 2, 2},
      {"-2.9", "-2.8999999999999999", -2, 0},
      {"-1.5e2", "-150", -150, 0},
      {"1e3", "1000", 1000, 1000},
      {"1E+2", "100", 100, 100},
      {"25e-1", "2.5", 2, 2},
      {"1e999", "null", int32Max, uint64Max},
      {"-1e999", "null", int32Min, 0},
      {"-2.2250738585072014e-308", "-2.2250738585072014e-308", 0, 0},
      {"255e9999999", "255", 255, 255},
      {"256e9999999", "256", 256, 256},
      {"9999999e99", "9999999", 9999999, 9999999},
      {"12345678901e5", "12345678901", -539222987, 12345678901},
      {"1234567e99", "1.2345670000000001e+105", int32Max, uint64Max},
      {"123456789012.5", "123456789012.5", int32Max, 123456789012},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.text);
    const Json value = parsed(row.text);
    EXPECT_EQ(value.dump(), row.written);
    EXPECT_EQ(value.intValue(), row.int32);
    EXPECT_EQ(value.uint64Value(), row.uint64);
    if (row.written != "null") EXPECT_EQ(value.numberValue(), std::stod(row.written));
  }
}

TEST(JsonText, StringsAreRead) {
  const std::pair<std::string, std::string> rows[] = {
      {R"("\b\f\n\r\t\"\\\/\u0000")", "\b\f\n\r\t\"\\/\0"s},
      {R"("\u0041\u00e9\u20AC")", "A\xc3\xa9\xe2\x82\xac"},
      {R"("\u007f\u0080\u07ff\u0800\ufffF")", "\x7f\xc2\x80\xdf\xbf\xe0\xa0\x80\xef\xbf\xbf"},
      {R"("\ud800\udc00\udbff\udfff")", "\xf0\x90\x80\x80\xf4\x8f\xbf\xbf"},
      {R"("\udb80\udc00\u0041")", "\xf3\xb0\x80\x80\x41"},
      // A surrogate without its partner keeps its three-byte form.
      {R"("\ud83d")", "\xed\xa0\xbd"},
      {R"("\udc00")", "\xed\xb0\x80"},
      {R"("\ud83d\ud83d\ude00")", "\xed\xa0\xbd\xf0\x9f\x98\x80"},
      {R"("\ud83d\udbff")", "\xed\xa0\xbd\xed\xaf\xbf"},
      {R"("\ud83d\ue000")", "\xed\xa0\xbd\xee\x80\x80"},
      {R"("\ud7ff\udc00\udc00")", "\xed\x9f\xbf\xed\xb0\x80\xed\xb0\x80"},
      {R"("\ud83dx\ude00")", "\xed\xa0\xbdx\xed\xb8\x80"},
      {R"("\ud83d\n\ude00")", "\xed\xa0\xbd\n\xed\xb8\x80"},
      {R"("\ud83d\u0041")", "\xed\xa0\xbd\x41"},
      {"\"\xff\x80 \xe0\xa0\x80\x7f raw\"", "\xff\x80 \xe0\xa0\x80\x7f raw"},
      {"\"raw \\n\xff\x80 \x7f\"", "raw \n\xff\x80 \x7f"},
  };
  for (const auto &[text, value] : rows) EXPECT_EQ(parsed(text).stringValue(), value) << text;
}

TEST(JsonText, StringsAreWritten) {
  const std::pair<std::string, std::string> rows[] = {
      {"\b\f\n\r\t\"\\/", R"("\b\f\n\r\t\"\\/")"},
      {"\x01\x0b\x10\x1f \0"s, R"("\u0001\u000b\u0010\u001f \u0000")"},
      {"\x7f\x80\xff\xe0\xa0\x80", "\"\x7f\x80\xff\xe0\xa0\x80\""},
      {"\xe2\x80\xa8|\xe2\x80\xa9", R"("\u2028|\u2029")"},
      {"\xe2\x80\xaa\xe2\x80\n\xe2\"\xe2", "\"\xe2\x80\xaa\xe2\x80\\n\xe2\\\"\xe2\""},
  };
  for (const auto &[value, text] : rows) EXPECT_EQ(Json(value).dump(), text);
}

TEST(JsonText, LongTextsAreWhole) {
  // A text is written through a buffer of 4096 bytes: every piece must survive its end, wherever
  // that falls.
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
      {Json::array{200, -2147483647 - 1}, "[200, -2147483648]"},
      {~std::uint64_t{0}, "18446744073709551615"},
      {Json::object{{"key", -1.0 / 3}}, "{\"key\": -0.33333333333333331}"},
      {JsonBytes(0), "[]"},
      {JsonBytes(1), "[0]"},
      {std::move(bytes), byteTexts + "]"},
  };
  for (const auto &[value, text] : pieces)
    for (std::size_t length = 2000; length < 4130; length += length == 2039 ? 2021 : 1) {
      const std::string filler(length, 'x');
      EXPECT_EQ(Json(Json::array{filler, value, filler, value}).dump(),
                "[\"" + filler + "\", " + text + ", \"" + filler + "\", " + text + "]");
    }
}

}  // namespace
