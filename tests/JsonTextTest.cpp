#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <nlohmann/json.hpp>
#include <random>

#include "json/Json.h"

namespace {

using std::string_literals::operator""s;

Json parsed(const std::string &text, JsonParseMode mode = JsonParseMode::Standard) {
  std::string error;
  const Json value = Json::parse(text, error, mode);
  EXPECT_EQ(error, "") << text;
  return value;
}

std::string parseError(const std::string &text, JsonParseMode mode = JsonParseMode::Standard) {
  std::string error;
  EXPECT_EQ(Json::parse(text, error, mode).type(), JsonType::Null) << text;
  return error;
}

std::string nested(int depth, const std::string &innermost = "") {
  return std::string(depth, '[') + innermost + std::string(depth, ']');
}

TEST(JsonText, ErrorsAreTold) {
  const std::pair<std::string, std::string> rows[] = {
      {"", "unexpected end of input"},
      {" \r\n\t", "unexpected end of input"},
      {"[", "unexpected end of input"},
      {"[1", "unexpected end of input"},
      {"[1,", "unexpected end of input"},
      {"{", "unexpected end of input"},
      {"{\"a\"", "unexpected end of input"},
      {"{\"a\":", "unexpected end of input"},
      {"\v1", "expected value, got (11)"},
      {"\xc3\xa9", "expected value, got (-61)"},
      {"\x7f", "expected value, got '\x7f' (127)"},
      {"x", "expected value, got 'x' (120)"},
      {"'a'", "expected value, got ''' (39)"},
      {"+1", "expected value, got '+' (43)"},
      {"[1,]", "expected value, got ']' (93)"},
      {"[,1]", "expected value, got ',' (44)"},
      {"// x", "expected value, got '/' (47)"},
      {"[1 2]", "expected ',' in list, got '2' (50)"},
      {"[1}", "expected ',' in list, got '}' (125)"},
      {"{1:2}", "expected '\"' in object, got '1' (49)"},
      {"{\"a\":1,}", "expected '\"' in object, got '}' (125)"},
      {"{\"a\" 1}", "expected ':' in object, got '1' (49)"},
      {"{\"a\":1 \"b\":2}", "expected ',' in object, got '\"' (34)"},
      {"nul", "parse error: expected null, got nul"},
      {"tru e", "parse error: expected true, got tru "},
      {"fals\n", "parse error: expected false, got fals\n"},
      {"nullx", "unexpected trailing 'x' (120)"},
      {"true false", "unexpected trailing 'f' (102)"},
      {"1 \xff", "unexpected trailing (-1)"},
      {"01", "leading 0s not permitted in numbers"},
      {"-00", "leading 0s not permitted in numbers"},
      {"-", "invalid (0) in number"},
      {"-a", "invalid 'a' (97) in number"},
      {"--1", "invalid '-' (45) in number"},
      {"1.", "at least one digit required in fractional part"},
      {"1.e5", "at least one digit required in fractional part"},
      {"1e", "at least one digit required in exponent"},
      {"1e+", "at least one digit required in exponent"},
      {"1.5E-x", "at least one digit required in exponent"},
      {"\"abc", "unexpected end of input in string"},
      {"\"abc\\", "unexpected end of input in string"},
      {"\"a\nb\"", "unescaped (10) in string"},
      {"\"a\0b\""s, "unescaped (0) in string"},
      {"\"\\u12\"", "bad \\u escape: 12\""},
      {"\"\\u12", "bad \\u escape: 12"},
      {"\"\\u-123\"", "bad \\u escape: -123"},
      {"\"\\u12g4\"", "bad \\u escape: 12g4"},
      {"\"\\u", "bad \\u escape: "},
      {"\"\\q\"", "invalid escape character 'q' (113)"},
      {"\"\\\x80\"", "invalid escape character (-128)"},
      {"{\"a\":tru}", "parse error: expected true, got tru}"},
      {"[1, 2", "unexpected end of input"},
      {nested(202), "exceeded maximum nesting depth"},
      {nested(201, "1"), "exceeded maximum nesting depth"},
      {nested(100000), "exceeded maximum nesting depth"},
  };
  for (const auto &[text, message] : rows) EXPECT_EQ(parseError(text), message) << text;
}

TEST(JsonText, TheFirstErrorStays) {
  std::string error = "";
  Json::parse("[\"\\q\", \"\\u12\"", error);
  EXPECT_EQ(error, "invalid escape character 'q' (113)");
}

TEST(JsonText, NestingUpToTheLimitIsAccepted) {
  EXPECT_EQ(parsed(nested(201)).dump(), nested(201));
  EXPECT_EQ(parsed(nested(200, "1")).dump(), nested(200, "1"));
}

TEST(JsonText, NumbersTakeTheirForm) {
  enum Form { Int32, Double, Unsigned };
  struct Row {
    std::string text;
    Form form;
    std::string dump;
  };
  const Row rows[] = {
      {"0", Int32, "0"},
      {"-0", Int32, "0"},
      {"123456789", Int32, "123456789"},
      {"-12345678", Int32, "-12345678"},
      {"-123456789", Double, "-123456789"},
      {"1234567890", Double, "1234567890"},
      {"4294967295", Double, "4294967295"},
      {"4294967296", Unsigned, "4294967296"},
      {"10000000000", Unsigned, "10000000000"},
      {"9007199254740993", Unsigned, "9007199254740993"},
      {"18446744073709551615", Unsigned, "18446744073709551615"},
      {"18446744073709551616", Unsigned, "18446744073709551615"},
      {"-18446744073709551616", Double, "-1.8446744073709552e+19"},
      {"0.1", Double, "0.10000000000000001"},
      {"-1.5e2", Double, "-150"},
      {"1e3", Double, "1000"},
      {"1E+2", Double, "100"},
      {"1e999", Double, "null"},
      {"9999999e99", Unsigned, "9999999"},
      {"12345678901e5", Unsigned, "12345678901"},
      {"42e9999999", Unsigned, "42"},
      {"1234567e99", Double, "1.2345670000000001e+105"},
      {"123456789012.5", Double, "123456789012.5"},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.text);
    const Json value = parsed(row.text);
    EXPECT_EQ(value.dump(), row.dump);
    // A form shows in what it cannot do: hold the value exactly, or hand its low bits to 32 bits.
    const std::uint64_t asUnsigned = value.uint64Value();
    if (row.form == Unsigned) EXPECT_EQ(std::to_string(asUnsigned), row.dump);
    if (row.form == Unsigned) EXPECT_EQ(value.intValue(), static_cast<std::int32_t>(asUnsigned));
    if (row.form == Double && value.numberValue() > 2147483647)
      EXPECT_EQ(value.intValue(), std::numeric_limits<std::int32_t>::max());
  }
}

TEST(JsonText, StringsAreDecoded) {
  const std::pair<std::string, std::string> rows[] = {
      {R"("\b\f\n\r\t\"\\\/")", "\b\f\n\r\t\"\\/"},
      {R"("\u0041\u00e9\u20AC")", "A\xc3\xa9\xe2\x82\xac"},
      {R"("a\u0000b")", "a\0b"s},
      {R"("\ud83d\ude00")", "\xf0\x9f\x98\x80"},
      {R"("\ud83d")", "\xed\xa0\xbd"},
      {R"("\ude00")", "\xed\xb8\x80"},
      {R"("\ud83d\ud83d\ude00")", "\xed\xa0\xbd\xf0\x9f\x98\x80"},
      {R"("\ud83dx\ude00")", "\xed\xa0\xbdx\xed\xb8\x80"},
      {R"("\ud83d\n\ude00")", "\xed\xa0\xbd\n\xed\xb8\x80"},
      {R"("\ud83d\u0041")",
       "\xed\xa0\xbd"
       "A"},
      {"\"\xff\x80 raw\"", "\xff\x80 raw"},
  };
  for (const auto &[text, value] : rows) EXPECT_EQ(parsed(text).stringValue(), value) << text;
}

TEST(JsonText, StringsAreEscaped) {
  const std::pair<std::string, std::string> rows[] = {
      {"\b\f\n\r\t\"\\/", R"("\b\f\n\r\t\"\\/")"},
      {"\x01\x0b\x1f\0"s, R"("\u0001\u000b\u001f\u0000")"},
      {"\x7f\x80\xff", "\"\x7f\x80\xff\""},
      {"\xe2\x80\xa8|\xe2\x80\xa9", R"("\u2028|\u2029")"},
      {"\xe2\x80\xaa\xe2\x80", "\"\xe2\x80\xaa\xe2\x80\""},
      {"\xe2", "\"\xe2\""},
  };
  for (const auto &[value, text] : rows) EXPECT_EQ(Json(value).dump(), text);
}

TEST(JsonText, ContainersHaveSpacesAndSortedKeys) {
  EXPECT_EQ(parsed("[]").dump(), "[]");
  EXPECT_EQ(parsed("{ }").dump(), "{}");
  EXPECT_EQ(parsed("[1,[ ],null,{\"k\":false}]").dump(), "[1, [], null, {\"k\": false}]");
  EXPECT_EQ(parsed(R"({"b":1,"a":2,"B":3,"":4,"a\n":5,"é":6})").dump(),
            R"({"": 4, "B": 3, "a": 2, "a\n": 5, "b": 1, "é": 6})");
  EXPECT_EQ(parsed(R"({"a":1,"b":0,"a":2})").dump(), R"({"a": 2, "b": 0})");
  std::string out = "before ";
  Json(Json::array{Json(true)}).dump(out);
  EXPECT_EQ(out, "before [true]");
}

TEST(JsonText, LongTextsAreWhole) {
  // A text is written through a buffer: every piece must survive its end, wherever that falls.
  const std::string escapes = "\"\\\n\x01\xe2\x80\xa8 and more";
  for (std::size_t length = 4060; length < 4110; ++length) {
    const std::string filler(length, 'x');
    const Json value(Json::array{filler, escapes, 2147483647, std::uint64_t{1} << 63, true, Json(),
                                 std::string(9000, 'y')});
    EXPECT_EQ(value.dump(), "[\"" + filler + "\", \"\\\"\\\\\\n\\u0001\\u2028 and more\", " +
                                "2147483647, 9223372036854775808, true, null, \"" +
                                std::string(9000, 'y') + "\"]");
    JsonBytes bytes(length);
    for (std::size_t at = 0; at < length; ++at)
      bytes.data()[at] = static_cast<std::uint8_t>(at * 7);
    const Json block(std::move(bytes));
    EXPECT_EQ(block.dump(), Json(Json::array(block.arrayItems())).dump());
  }
}

TEST(JsonText, CommentsAreForThoseWhoAsk) {
  const auto comments = JsonParseMode::Comments;
  EXPECT_EQ(parsed("// a\n [1, /* b */ 2] // c", comments).dump(), "[1, 2]");
  EXPECT_EQ(parsed("/**//* * / */{ // x\n}/* */", comments).dump(), "{}");
  const std::pair<std::string, std::string> rows[] = {
      {"/", "unexpected end of input after start of comment"},
      {"1 /", "unexpected end of input after start of comment"},
      {"/*", "unexpected end of input inside multi-line comment"},
      {"/*/", "unexpected end of input inside multi-line comment"},
      {"/* *", "unexpected end of input inside multi-line comment"},
      {"/x", "malformed comment"},
      {"// only", "unexpected end of input"},
  };
  for (const auto &[text, message] : rows) EXPECT_EQ(parseError(text, comments), message) << text;
}

/// A document whose every value has one reading only, whichever reader it is. Strings are ASCII and
/// the suffix.
nlohmann::json randomDocument(std::mt19937 &random, int depth, const std::string &suffix = "") {
  const auto pick = [&](unsigned below) { return static_cast<unsigned>(random() % below); };
  switch (pick(depth > 4 ? 5 : 7)) {
    case 0: return nullptr;
    case 1: return pick(2) == 0;
    case 2: return static_cast<int>(pick(2'000'000)) - 1'000'000;
    case 3: return 4294967296u + (std::uint64_t{random()} << pick(32));
    case 4: {
      std::string text;
      for (unsigned count = pick(12); count > 0; --count) text += static_cast<char>(pick(0x80));
      return text + suffix;
    }
    case 5: {
      auto list = nlohmann::json::array();
      for (unsigned count = pick(6); count > 0; --count)
        list.push_back(randomDocument(random, depth + 1, suffix));
      return list;
    }
    default: {
      auto map = nlohmann::json::object();
      for (unsigned count = pick(6); count > 0; --count)
        map["k\"" + std::to_string(pick(1000))] = randomDocument(random, depth + 1, suffix);
      return map;
    }
  }
}

TEST(JsonText, AgreesWithAnIndependentReader) {
  std::mt19937 random(20260000);
  for (int round = 0; round < 2000; ++round) {
    const nlohmann::json document = randomDocument(random, 0, "\u00e9\u2028\U0001f600");
    const Json ours = parsed(document.dump());
    EXPECT_EQ(nlohmann::json::parse(ours.dump()), document);
    EXPECT_EQ(parsed(ours.dump()), ours);
    EXPECT_EQ(parsed(document.dump(3, ' ', true)).dump(), ours.dump());
  }
}

TEST(JsonText, BrokenTextsAreRefusedByBothReaders) {
  std::mt19937 random(7);
  int refused = 0;
  for (int round = 0; round < 4000; ++round) {
    std::string text = randomDocument(random, 1).dump();
    text[random() % text.size()] = "{}[],:\"\\x-. "[random() % 12];
    std::string error;
    Json::parse(text, error);
    // No exponents and no bytes beyond ASCII: the other reader refuses numbers too large for a
    // double and broken UTF-8.
    EXPECT_EQ(error.empty(), nlohmann::json::accept(text)) << text << ": " << error;
    refused += !error.empty();
  }
  EXPECT_GT(refused, 1000);
}

}  // namespace
