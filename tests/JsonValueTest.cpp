#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "json/Json.h"

namespace {

const Json one32(1);
const Json one64(std::uint64_t{1});
const Json oneDouble(1.0);

TEST(JsonValue, AccessorsAnswerForEveryKind) {
  struct Row {
    Json value;
    JsonType type;
    double number;
    std::int32_t int32;
    bool boolean;
    std::uint64_t uint64;
    std::string string;
    std::size_t items, members;
  };
  const Row rows[] = {
      {Json(), JsonType::Null, 0, 0, false, 0, "", 0, 0},
      {Json(true), JsonType::Bool, 0, 0, true, 0, "", 0, 0},
      {Json(-1), JsonType::Number, -1, -1, false, 18446744073709551615u, "", 0, 0},
      {Json(2.9), JsonType::Number, 2.9, 2, false, 2, "", 0, 0},
      {Json(-2.9), JsonType::Number, -2.9, -2, false, 0, "", 0, 0},
      {Json(std::uint64_t{4294967296}), JsonType::Number, 4294967296.0, 0, false, 4294967296, "", 0,
       0},
      {Json(std::uint64_t{4294967295}), JsonType::Number, 4294967295.0, -1, false, 4294967295, "",
       0, 0},
      {Json("12"), JsonType::String, 0, 0, false, 0, "12", 0, 0},
      {Json(Json::array{one32, one64}), JsonType::Array, 0, 0, false, 0, "", 2, 0},
      {Json(Json::object{{"a", one32}}), JsonType::Object, 0, 0, false, 0, "", 0, 1},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.value.dump());
    EXPECT_EQ(row.value.type(), row.type);
    EXPECT_EQ(row.value.numberValue(), row.number);
    EXPECT_EQ(row.value.intValue(), row.int32);
    EXPECT_EQ(row.value.boolValue(), row.boolean);
    EXPECT_EQ(row.value.uint64Value(), row.uint64);
    EXPECT_EQ(row.value.stringValue(), row.string);
    EXPECT_EQ(row.value.arrayItems().size(), row.items);
    EXPECT_EQ(row.value.objectItems().size(), row.members);
  }
}

TEST(JsonValue, DoublesOutsideTheRangeAreClamped) {
  const double infinity = std::numeric_limits<double>::infinity();
  EXPECT_EQ(Json(1e300).intValue(), std::numeric_limits<std::int32_t>::max());
  EXPECT_EQ(Json(-infinity).intValue(), std::numeric_limits<std::int32_t>::min());
  EXPECT_EQ(Json(-2147483648.5).intValue(), std::numeric_limits<std::int32_t>::min());
  EXPECT_EQ(Json(18446744073709551616.0).uint64Value(), 18446744073709551615u);
  EXPECT_EQ(Json(18446744073709549568.0).uint64Value(), 18446744073709549568u);
  EXPECT_EQ(Json(-1.0).uint64Value(), 0u);
  EXPECT_EQ(Json(std::nan("")).intValue(), 0);
  EXPECT_EQ(Json(std::nan("")).uint64Value(), 0u);
}

TEST(JsonValue, FailedLookupsYieldNull) {
  const Json list(Json::array{one32});
  const Json map(Json::object{{"a", list}});
  EXPECT_EQ(map["a"][0], one32);
  for (const Json *missing : {&list[1], &list["a"], &map["b"], &map[0], &one32[0], &Json()["a"]}) {
    EXPECT_EQ(missing->type(), JsonType::Null);
    EXPECT_EQ(missing->uint64Value(), 0u);
  }
}

TEST(JsonValue, OrderIsByKindThenByValue) {
  // Each is less than all that follow it.
  const Json ascending[] = {
      Json(),
      Json(-1),
      Json(0),
      Json(0.5),
      Json(std::uint64_t{7}),
      Json(false),
      Json(true),
      Json(""),
      Json("a"),
      Json("a\x7f"),
      Json("a\xff"),  // bytes compare unsigned
      Json("b"),
      Json(Json::array{}),
      Json(Json::array{Json(1)}),
      Json(Json::array{Json(1), Json(0)}),
      Json(Json::array{Json(2)}),
      Json(Json::object{}),
      Json(Json::object{{"a", Json(1)}}),
      Json(Json::object{{"a", Json(1)}, {"b", Json()}}),
      Json(Json::object{{"a", Json(2)}}),
      Json(Json::object{{"b", Json(0)}}),
  };
  for (const Json &left : ascending)
    for (const Json &right : ascending) {
      SCOPED_TRACE(left.dump() + " and " + right.dump());
      EXPECT_EQ(left < right, &left < &right);
      EXPECT_EQ(left == right, &left == &right);
      EXPECT_EQ(left >= right, &left >= &right);
    }
}

TEST(JsonValue, NumbersAreEqualWhateverTheirForm) {
  EXPECT_EQ(one32, one64);
  EXPECT_EQ(one64, oneDouble);
  EXPECT_EQ(oneDouble, one32);
  EXPECT_NE(one32, Json(true));
  EXPECT_FALSE(one32 < oneDouble);
  EXPECT_EQ(Json(Json::array{one32}), Json(Json::array{oneDouble}));
  // A NaN is not equal to itself, but a value is: the payload is the same one.
  const Json nan(std::nan(""));
  const Json copy = nan;
  EXPECT_EQ(nan, copy);
  EXPECT_NE(nan, Json(std::nan("")));
}

TEST(JsonValue, ObjectsAreSortedHoweverTheyAreBuilt) {
  using Member = Json::object::value_type;
  std::vector<std::string> keys{"", "a", "ab", "b", "b\xff"};
  do {
    Json::object set;
    std::vector<Member> list;
    // Each twice: the second value counts.
    for (const int round : {1, 2})
      for (const std::string &key : keys) {
        const Json value(static_cast<std::int32_t>(key.size()) * round);
        set[key] = value;
        list.emplace_back(key, value);
      }
    const std::string expected = "{\"\": 0, \"a\": 2, \"ab\": 4, \"b\": 2, \"b\xff\": 4}";
    ASSERT_EQ(Json(set).dump(), expected);
    ASSERT_EQ(Json(Json::object(list)).dump(), expected);
    ASSERT_EQ(set.find("ab")->second, Json(4));
    ASSERT_EQ(set.find("aa"), set.end());
    ASSERT_EQ(set.find("c"), set.end());
  } while (std::next_permutation(keys.begin(), keys.end()));
}

TEST(JsonValue, CopiesMayBeReleasedOnAnyThread) {
  const Json shared(Json::object{{"k", Json(Json::array{Json("text"), Json()})}});
  const auto work = [&shared] {
    for (int round = 0; round < 10000; ++round) {
      const Json copy = shared["k"];
      ASSERT_EQ(copy[0].stringValue(), "text");
    }
  };
  std::thread other(work);
  work();
  other.join();
}

}  // namespace
