#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <type_traits>
#include <vector>

#include "json/Json.h"

namespace {

using Array = Json::array;
using Object = Json::object;

static_assert(!std::is_constructible_v<Json, int *>, "a pointer would quietly become a bool");

Json byteBlock(const std::vector<std::uint8_t> &values) {
  JsonBytes bytes(values.size());
  std::copy(values.begin(), values.end(), bytes.data());
  return Json(std::move(bytes));
}

TEST(JsonValue, AccessorsOfAnotherKindAnswerNothing) {
  const std::pair<Json, JsonType> rows[] = {
      {Json(), JsonType::Null},
      {true, JsonType::Bool},
      {1.5, JsonType::Number},
      {"12", JsonType::String},
      {Array{1, 2}, JsonType::Array},
      {byteBlock({1, 2}), JsonType::Array},
      {Object{{"a", 1}, {"b", 2}}, JsonType::Object},
  };
  for (const auto &[value, type] : rows) {
    SCOPED_TRACE(value.dump());
    EXPECT_EQ(value.type(), type);
    EXPECT_EQ(value.numberValue(), type == JsonType::Number ? 1.5 : 0);
    EXPECT_EQ(value.intValue(), type == JsonType::Number ? 1 : 0);
    EXPECT_EQ(value.uint64Value(), type == JsonType::Number ? 1u : 0u);
    EXPECT_EQ(value.boolValue(), type == JsonType::Bool);
    EXPECT_EQ(value.stringValue(), type == JsonType::String ? "12" : "");
    EXPECT_EQ(value.arrayItems().size(), type == JsonType::Array ? 2u : 0u);
    EXPECT_EQ(value.objectItems().size(), type == JsonType::Object ? 2u : 0u);
  }
}

TEST(JsonValue, LookupsYieldTheItemOrNull) {
  const Json list(Array{1, "x"});
  const Json bytes = byteBlock({7, 200});
  const Json map(Object{{"a", list}, {"b", true}, {"d", 4}});
  EXPECT_EQ(map["a"][0], Json(1));
  EXPECT_EQ(list[1], Json("x"));
  EXPECT_EQ(bytes[1], Json(200));
  EXPECT_EQ(map["d"], Json(4));
  for (const Json *missing : {&list[2], &list["a"], &bytes[2], &bytes["a"], &map["c"], &map["e"],
                              &map[0], &map["d"][0], &Json()["a"]})
    EXPECT_EQ(missing->type(), JsonType::Null);
}

TEST(JsonValue, OrderIsByKindThenByValue) {
  // The values of a row are equal, whatever their form, and less than those of all later rows.
  const std::vector<Json> rows[] = {
      {Json()},
      {-1},
      {0, -0.0},
      {0.5},
      {1, std::uint64_t{1}, 1.0},
      {1e300},
      {false},
      {true},
      {""},
      {"a", std::string("a")},
      {"a\x7f"},
      {"a\xff"},  // bytes compare unsigned
      {"b"},
      {Array{}},
      {Array{1}, Array{1.0}},
      {Array{1, 0}},
      {byteBlock({1, 1})},
      {byteBlock({1, 255}), Array{1.0, 255}},
      {Array{2}},
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

TEST(JsonValue, ANaNEqualsOnlyItsCopies) {
  const Json number(std::nan(""));
  EXPECT_EQ(number, Json(number));
  EXPECT_NE(number, Json(std::nan("")));
  EXPECT_EQ(number.intValue(), 0);
  EXPECT_EQ(number.uint64Value(), 0u);
  EXPECT_EQ(number.dump(), "null");
}

TEST(JsonValue, ObjectsAreSortedHoweverTheyAreBuilt) {
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
    ASSERT_EQ(set.find("ab")->second, Json(8));
    for (const char *missing : {"aa", "c"}) ASSERT_EQ(set.find(missing), set.end());
  } while (std::next_permutation(keys.begin(), keys.end()));
}

}  // namespace
