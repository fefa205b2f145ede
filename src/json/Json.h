#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// The kind of a Json value. The codes order values of different kinds.
enum class JsonType { Null = 0, Number = 1, Bool = 2, String = 3, Array = 4, Object = 5 };

/// What the parser accepts beside plain JSON.
enum class JsonParseMode {
  Standard = 0,  ///< JSON only: what the channel speaks.
  Comments = 1,  ///< also "//" and "/* */" comments between tokens.
};

class JsonValue;
class JsonWriter;

/// A block of bytes on its way to becoming a Json array with one number from 0 to 255 for each
/// byte. To every reader that array is one like any other; it only takes a byte for each item, not
/// a value.
class JsonBytes {
 public:
  /// `size` zero bytes, which cost no memory before they are written. Throws std::bad_alloc.
  explicit JsonBytes(std::size_t size);

  std::uint8_t *data() { return bytes.get(); }
  const std::uint8_t *data() const { return bytes.get(); }
  std::size_t size() const { return count; }

  /// The size in bytes of the array's text.
  std::size_t textSize() const;

 private:
  struct Free {
    void operator()(std::uint8_t *bytes) const;
  };
  std::unique_ptr<std::uint8_t[], Free> bytes;
  std::size_t count;
};

/// One immutable JSON value: a handle on a shared, never changed payload.
///
/// Copying costs one atomic increment, and handles may be copied and destroyed on different
/// threads. To change a value, build a new Json::object or Json::array and wrap it.
///
/// A number keeps one of three forms: signed 32-bit, double or unsigned 64-bit. All three are of
/// the kind Number; the form decides how the value is written and how the accessors convert it.
/// Addresses and sizes use the unsigned 64-bit form, which a double could not carry exactly.
///
/// A Json that was moved from may only be assigned to or destroyed.
///
/// No accessor and no comparison fails or throws. A question asked of the wrong kind, a missing key
/// and an index past the end yield null, 0, false, the empty text or the empty list, so a reader
/// of requests needs no presence checks.
class Json {
 public:
  using array = std::vector<Json>;
  class object;

  Json() noexcept;
  Json(bool value) noexcept;
  Json(std::int32_t value);
  Json(std::uint64_t value);
  Json(double value);
  Json(const std::string &value);
  Json(std::string &&value);
  Json(const char *value);
  Json(const array &value);
  Json(array &&value);
  Json(const object &value);
  Json(object &&value);
  Json(JsonBytes &&value);
  /// Any other pointer would quietly become a bool.
  Json(const void *) = delete;

  JsonType type() const;

  double numberValue() const;
  /// A double is truncated toward zero (clamped to the range, NaN gives 0); an unsigned 64-bit
  /// number gives its low 32 bits.
  std::int32_t intValue() const;
  bool boolValue() const;
  /// A negative 32-bit number is sign-extended: -1 gives 18446744073709551615. A double is
  /// truncated toward zero (clamped to the range, NaN gives 0).
  std::uint64_t uint64Value() const;
  /// The text of a string. Empty for every other kind: a number's text is never made up here.
  const std::string &stringValue() const;
  const array &arrayItems() const;
  const object &objectItems() const;
  const Json &operator[](std::size_t index) const;
  const Json &operator[](std::string_view key) const;

  /// Numbers are compared by their value as a double, whatever their forms. Values of different
  /// kinds are never equal and are ordered by the kind's code.
  friend bool operator==(const Json &a, const Json &b);
  friend bool operator<(const Json &a, const Json &b);
  friend bool operator!=(const Json &a, const Json &b) { return !(a == b); }
  friend bool operator>(const Json &a, const Json &b) { return b < a; }
  friend bool operator<=(const Json &a, const Json &b) { return !(b < a); }
  friend bool operator>=(const Json &a, const Json &b) { return !(a < b); }

  /// Appends the value's text to `out`: one line, members joined by ", ", keys and values by ": ",
  /// keys in ascending byte order.
  void dump(std::string &out) const;
  std::string dump() const;
  /// For a part of a larger text.
  void dump(JsonWriter &out) const;

  /// Reads one value from `text`. On failure the result is null and `error`, which must come empty,
  /// holds one line of English about the first thing that is wrong. On success `error` stays as it
  /// is; that tells a failure from the valid text "null".
  static Json parse(const std::string &text, std::string &error,
                    JsonParseMode mode = JsonParseMode::Standard);

 private:
  std::shared_ptr<const JsonValue> value;
};

/// The members of an object: a map, sorted by key in plain byte order, keys unique.
///
/// They lie one behind the other in one block. Most objects have a handful of members that are
/// added in about their order, looked at once, and dropped; a node for each would cost more than
/// all the rest. The price is that a key set out of order moves those behind it.
class Json::object {
 public:
  using value_type = std::pair<std::string, Json>;
  using const_iterator = std::vector<value_type>::const_iterator;

  /// What a frame or a section has at most, the objects that there are most of: worth making room
  /// for at once.
  static constexpr std::size_t usualCount = 5;

  object() = default;
  object(std::initializer_list<value_type> members);
  /// In any order, sorted once; of a key that comes more than once the last value stays.
  explicit object(std::vector<value_type> members);

  /// The member of that name, which is null if it was not there. Good until a member is added.
  Json &operator[](std::string_view key);
  /// end() if there is none.
  const_iterator find(std::string_view key) const;

  const_iterator begin() const { return members.begin(); }
  const_iterator end() const { return members.end(); }
  std::size_t size() const { return members.size(); }
  bool empty() const { return members.empty(); }

  /// As lists of pairs.
  friend bool operator==(const object &a, const object &b) { return a.members == b.members; }
  friend bool operator<(const object &a, const object &b) { return a.members < b.members; }

 private:
  /// The first member whose name is not less than `key`.
  const_iterator lowerBound(std::string_view key) const;

  std::vector<value_type> members;
};
