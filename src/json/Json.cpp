#include "json/Json.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

#include "json/JsonValue.h"
#include "json/JsonWriter.h"

namespace {

/// Truncates toward zero, clamps to the range, and gives 0 for NaN. A plain cast would be undefined
/// for what does not fit.
template <typename Integer>
Integer truncateTo(double value) {
  if (std::isnan(value)) return 0;
  const double whole = std::trunc(value);
  // The maximum may not be a double, so the bound is the power of two above it.
  if (whole >= std::ldexp(1.0, std::numeric_limits<Integer>::digits))
    return std::numeric_limits<Integer>::max();
  if (whole <= static_cast<double>(std::numeric_limits<Integer>::min()))
    return std::numeric_limits<Integer>::min();
  return static_cast<Integer>(whole);
}

class JsonNull final : public JsonValue {
 public:
  JsonType type() const override { return JsonType::Null; }
  bool equals(const JsonValue &) const override { return true; }
  bool less(const JsonValue &) const override { return false; }
  void dump(JsonWriter &out) const override { out.plain("null"); }
};

class JsonBool final : public JsonValue {
 public:
  explicit JsonBool(bool value) : value(value) {}
  JsonType type() const override { return JsonType::Bool; }
  bool equals(const JsonValue &other) const override { return value == other.boolValue(); }
  bool less(const JsonValue &other) const override { return value < other.boolValue(); }
  void dump(JsonWriter &out) const override { out.plain(value ? "true" : "false"); }
  bool boolValue() const override { return value; }

 private:
  bool value;
};

/// The common part of the three number forms: they are of one kind and compare as doubles.
class JsonNumber : public JsonValue {
 public:
  JsonType type() const override { return JsonType::Number; }
  bool equals(const JsonValue &other) const override {
    return numberValue() == other.numberValue();
  }
  bool less(const JsonValue &other) const override { return numberValue() < other.numberValue(); }
};

class JsonInt final : public JsonNumber {
 public:
  explicit JsonInt(std::int32_t value) : value(value) {}
  void dump(JsonWriter &out) const override { out.number(value); }
  double numberValue() const override { return value; }
  std::int32_t intValue() const override { return value; }
  std::uint64_t uint64Value() const override {
    // Deliberate: no clamping. Hosts pass -1 to mean "all bits set".
    return static_cast<std::uint64_t>(static_cast<std::int64_t>(value));
  }

 private:
  std::int32_t value;
};

class JsonUint64 final : public JsonNumber {
 public:
  explicit JsonUint64(std::uint64_t value) : value(value) {}
  void dump(JsonWriter &out) const override { out.number(value); }
  double numberValue() const override { return static_cast<double>(value); }
  std::int32_t intValue() const override {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(value));
  }
  std::uint64_t uint64Value() const override { return value; }

 private:
  std::uint64_t value;
};

class JsonDouble final : public JsonNumber {
 public:
  explicit JsonDouble(double value) : value(value) {}
  void dump(JsonWriter &out) const override { out.number(value); }
  double numberValue() const override { return value; }
  std::int32_t intValue() const override { return truncateTo<std::int32_t>(value); }
  std::uint64_t uint64Value() const override { return truncateTo<std::uint64_t>(value); }

 private:
  double value;
};

class JsonString final : public JsonValue {
 public:
  explicit JsonString(std::string value) : value(std::move(value)) {}
  JsonType type() const override { return JsonType::String; }
  bool equals(const JsonValue &other) const override { return value == other.stringValue(); }
  bool less(const JsonValue &other) const override { return value < other.stringValue(); }
  void dump(JsonWriter &out) const override { out.quoted(value); }
  const std::string &stringValue() const override { return value; }

 private:
  std::string value;
};

class JsonArray final : public JsonValue {
 public:
  explicit JsonArray(Json::array items) : items(std::move(items)) {}
  JsonType type() const override { return JsonType::Array; }
  bool equals(const JsonValue &other) const override { return items == other.arrayItems(); }
  bool less(const JsonValue &other) const override { return items < other.arrayItems(); }
  void dump(JsonWriter &out) const override {
    out.plain("[");
    for (const Json &item : items) {
      if (&item != &items.front()) out.plain(", ");
      item.dump(out);
    }
    out.plain("]");
  }
  const Json::array &arrayItems() const override { return items; }
  const Json &operator[](std::size_t index) const override {
    return index < items.size() ? items[index] : JsonValue::operator[](index);
  }

 private:
  Json::array items;
};

/// An array of numbers from 0 to 255. Only a look at an item makes values of the items.
class JsonByteArray final : public JsonValue {
 public:
  explicit JsonByteArray(JsonBytes bytes) : bytes(std::move(bytes)) {}
  JsonType type() const override { return JsonType::Array; }
  bool equals(const JsonValue &other) const override { return arrayItems() == other.arrayItems(); }
  bool less(const JsonValue &other) const override { return arrayItems() < other.arrayItems(); }
  void dump(JsonWriter &out) const override { out.byteArray(bytes.data(), bytes.size()); }
  const Json::array &arrayItems() const override {
    std::call_once(itemsMade, [this] {
      items.reserve(bytes.size());
      for (std::size_t index = 0; index < bytes.size(); ++index)
        items.emplace_back(std::int32_t{bytes.data()[index]});
    });
    return items;
  }
  const Json &operator[](std::size_t index) const override {
    return index < bytes.size() ? arrayItems()[index] : JsonValue::operator[](index);
  }

 private:
  JsonBytes bytes;
  mutable std::once_flag itemsMade;
  mutable Json::array items;
};

class JsonObject final : public JsonValue {
 public:
  explicit JsonObject(Json::object members) : members(std::move(members)) {}
  JsonType type() const override { return JsonType::Object; }
  bool equals(const JsonValue &other) const override { return members == other.objectItems(); }
  bool less(const JsonValue &other) const override { return members < other.objectItems(); }
  void dump(JsonWriter &out) const override {
    std::string_view separator = "{";
    for (const auto &[key, member] : members) {
      out.plain(separator);
      out.quoted(key);
      out.plain(": ");
      member.dump(out);
      separator = ", ";
    }
    out.plain(members.empty() ? "{}" : "}");
  }
  const Json::object &objectItems() const override { return members; }
  const Json &operator[](std::string_view key) const override {
    const auto found = members.find(key);
    return found != members.end() ? found->second : JsonValue::operator[](key);
  }

 private:
  Json::object members;
};

using Payload = std::shared_ptr<const JsonValue>;

/// A pointer to a payload that lives until exit. It does not count references, so the commonest
/// values are copied and dropped without an atomic operation.
Payload unowned(const JsonValue &payload) { return {Payload(), &payload}; }

/// The payloads of the numbers from 0 to 255. Bytes and counts are most of all numbers.
template <std::size_t... numbers>
std::array<JsonInt, sizeof...(numbers)> makeSmallInts(std::index_sequence<numbers...>) {
  return {JsonInt(static_cast<std::int32_t>(numbers))...};
}

/// The payloads that all values share. Made on first use and kept until exit.
struct Shared {
  const JsonNull null{};
  const JsonBool yes{true};
  const JsonBool no{false};
  const std::array<JsonInt, 256> smallInts = makeSmallInts(std::make_index_sequence<256>());
  const std::string emptyString{};
  const Json::array emptyArray{};
  const Json::object emptyObject{};
};

const Shared &shared() {
  static const Shared instance;
  return instance;
}

/// The result of a failed lookup.
const Json &nullJson() {
  static const Json instance;
  return instance;
}

}  // namespace

JsonBytes::JsonBytes(std::size_t size)
    : bytes(static_cast<std::uint8_t *>(std::calloc(std::max<std::size_t>(size, 1), 1))),
      count(size) {
  if (!bytes) throw std::bad_alloc();
}

void JsonBytes::Free::operator()(std::uint8_t *bytes) const { std::free(bytes); }

std::size_t JsonBytes::textSize() const { return JsonWriter::byteArraySize(data(), size()); }

Json::object::object(std::initializer_list<value_type> members)
    : object(std::vector<value_type>(members)) {}

Json::object::object(std::vector<value_type> unsorted) : members(std::move(unsorted)) {
  const auto notBefore = [](const value_type &a, const value_type &b) {
    return a.first >= b.first;
  };
  if (std::adjacent_find(members.begin(), members.end(), notBefore) == members.end()) return;
  // Not std::stable_sort, for which clang 19 reports a deprecated function in GCC 12's headers.
  std::vector<std::pair<std::string_view, value_type *>> order;
  order.reserve(members.size());
  for (value_type &member : members) order.emplace_back(member.first, &member);
  std::sort(order.begin(), order.end());  // by key, and then by place
  std::vector<value_type> sorted;
  sorted.reserve(members.size());
  for (const auto &[key, place] : order) {
    value_type &member = *place;
    if (!sorted.empty() && sorted.back().first == member.first)
      sorted.back() = std::move(member);  // the last one of equal keys stays
    else
      sorted.push_back(std::move(member));
  }
  members = std::move(sorted);
}

Json &Json::object::operator[](std::string_view key) {
  if (members.empty()) members.reserve(usualCount);
  if (members.empty() || members.back().first < key)
    return members.emplace_back(key, Json()).second;
  auto place = members.begin() + (lowerBound(key) - begin());
  if (place->first != key) place = members.emplace(place, key, Json());
  return place->second;
}

Json::object::const_iterator Json::object::find(std::string_view key) const {
  const auto place = lowerBound(key);
  return place != end() && place->first == key ? place : end();
}

Json::object::const_iterator Json::object::lowerBound(std::string_view key) const {
  return std::lower_bound(
      begin(), end(), key,
      [](const value_type &member, std::string_view wanted) { return member.first < wanted; });
}

double JsonValue::numberValue() const { return 0.0; }
std::int32_t JsonValue::intValue() const { return 0; }
bool JsonValue::boolValue() const { return false; }
std::uint64_t JsonValue::uint64Value() const { return 0; }
const std::string &JsonValue::stringValue() const { return shared().emptyString; }
const Json::array &JsonValue::arrayItems() const { return shared().emptyArray; }
const Json &JsonValue::operator[](std::size_t) const { return nullJson(); }
const Json::object &JsonValue::objectItems() const { return shared().emptyObject; }
const Json &JsonValue::operator[](std::string_view) const { return nullJson(); }

Json::Json() noexcept : value(unowned(shared().null)) {}
Json::Json(bool value) noexcept : value(unowned(value ? shared().yes : shared().no)) {}
Json::Json(std::int32_t value)
    // A negative number becomes a large one.
    : value(static_cast<std::uint64_t>(value) < shared().smallInts.size()
                ? unowned(shared().smallInts[static_cast<std::size_t>(value)])
                : std::make_shared<JsonInt>(value)) {}
Json::Json(std::uint64_t value) : value(std::make_shared<JsonUint64>(value)) {}
Json::Json(double value) : value(std::make_shared<JsonDouble>(value)) {}
Json::Json(const std::string &value) : value(std::make_shared<JsonString>(value)) {}
Json::Json(std::string &&value) : value(std::make_shared<JsonString>(std::move(value))) {}
Json::Json(const char *value) : value(std::make_shared<JsonString>(value)) {}
Json::Json(const array &value) : value(std::make_shared<JsonArray>(value)) {}
Json::Json(array &&value) : value(std::make_shared<JsonArray>(std::move(value))) {}
Json::Json(const object &value) : value(std::make_shared<JsonObject>(value)) {}
Json::Json(object &&value) : value(std::make_shared<JsonObject>(std::move(value))) {}
Json::Json(JsonBytes &&value) : value(std::make_shared<JsonByteArray>(std::move(value))) {}

JsonType Json::type() const { return value->type(); }
double Json::numberValue() const { return value->numberValue(); }
std::int32_t Json::intValue() const { return value->intValue(); }
bool Json::boolValue() const { return value->boolValue(); }
std::uint64_t Json::uint64Value() const { return value->uint64Value(); }
const std::string &Json::stringValue() const { return value->stringValue(); }
const Json::array &Json::arrayItems() const { return value->arrayItems(); }
const Json::object &Json::objectItems() const { return value->objectItems(); }
const Json &Json::operator[](std::size_t index) const { return (*value)[index]; }
const Json &Json::operator[](std::string_view key) const { return (*value)[key]; }

bool operator==(const Json &a, const Json &b) {
  if (a.value == b.value) return true;
  return a.type() == b.type() && a.value->equals(*b.value);
}

bool operator<(const Json &a, const Json &b) {
  if (a.type() != b.type()) return a.type() < b.type();
  return a.value->less(*b.value);
}

void Json::dump(JsonWriter &out) const { value->dump(out); }

void Json::dump(std::string &out) const {
  JsonWriter writer(out);
  dump(writer);
  writer.finish();
}

std::string Json::dump() const {
  std::string out;
  dump(out);
  return out;
}
