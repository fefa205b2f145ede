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

/// What the parser accepts.
enum class JsonParseMode {
  Standard = 0,  ///< JSON only. The channel uses this mode.
  /// Also "//" and "/* */" comments between tokens, as people write them in files.
  /// Deliberate: kept for code outside this repository that takes the class. The program reads no
  /// such files.
  Comments = 1,
};

class JsonValue;
class JsonWriter;

/// A block of bytes from which to make a Json array: one number from 0 to 255 for each byte. The
/// array behaves like any other, but takes one byte of memory for each item, until an item is
/// looked at or compared. From then on it also keeps a Json for each.
class JsonBytes {
 public:
  /// `size` zero bytes. They take no memory before they are written. Throws std::bad_alloc.
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

/// One immutable JSON value: a handle to a shared payload that never changes.
///
/// Copying costs at most one atomic increment. Handles to one payload may be copied and destroyed
/// on different threads. To change a value, build a new Json::object or Json::array and wrap it.
///
/// A number has one of three forms: signed 32-bit, double or unsigned 64-bit. All three are of the
/// kind Number. The form decides how the value is written and how the accessors convert it.
/// Addresses and sizes use the unsigned 64-bit form, because a double cannot hold them exactly.
///
/// A Json that was moved from may only be assigned to or destroyed.
///
/// No accessor and no comparison fails or throws, except that the first look at the items of
/// JsonBytes may throw std::bad_alloc. An accessor of another kind, a missing key and an
/// index past the end yield null, 0, false, the empty text or the empty list, so a reader of
/// requests needs no presence checks.
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
  /// Any other pointer would silently become a bool.
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
  /// The text of a string. Empty for every other kind, numbers included.
  const std::string &stringValue() const;
  const array &arrayItems() const;
  const object &objectItems() const;
  const Json &operator[](std::size_t index) const;
  const Json &operator[](std::string_view key) const;

  /// Numbers compare by their value as a double, whatever their forms. Values of different kinds
  /// are never equal; the codes of the kinds order them.
  friend bool operator==(const Json &a, const Json &b);
  friend bool operator<(const Json &a, const Json &b);
  friend bool operator>(const Json &a, const Json &b) { return b < a; }
  friend bool operator<=(const Json &a, const Json &b) { return !(b < a); }
  friend bool operator>=(const Json &a, const Json &b) { return !(a < b); }

  /// Appends the value's text to `out`: one line, members joined by ", ", keys and values by ": ",
  /// keys in ascending byte order.
  void dump(std::string &out) const;
  std::string dump() const;
  /// The same, as a part of a larger text.
  void dump(JsonWriter &out) const;

  /// Reads the value that `text` holds. Pass an empty `error`. After a failure the result is null
  /// and `error` describes the first mistake in one line of English. After a success `error` is
  /// still empty, which distinguishes the text "null" from a failure.
  static Json parse(const std::string &text, std::string &error,
                    JsonParseMode mode = JsonParseMode::Standard);

 private:
  std::shared_ptr<const JsonValue> value;
};

/// The members of an object: a map, sorted by key in plain byte order, keys unique.
///
/// The members lie in one block of memory. Most objects have a handful of members, which are added
/// in about their order, read once, and dropped; a node for each would cost more than all the rest.
/// The price: a key that is set out of order moves the members after it.
class Json::object {
 public:
  using value_type = std::pair<std::string, Json>;
  using const_iterator = std::vector<value_type>::const_iterator;

  /// Most objects describe a stack frame or a section of a module, and have at most this many
  /// members. The first member reserves room for all.
  static constexpr std::size_t usualCount = 5;

  object() = default;
  object(std::initializer_list<value_type> members);
  /// Takes the members in any order and sorts them once. The last value of a repeated key stays.
  explicit object(std::vector<value_type> members);

  /// The value of `key`. A key that was missing is added with null. The reference is valid until
  /// another member is added.
  Json &operator[](std::string_view key);
  /// Returns end() if the key is missing.
  const_iterator find(std::string_view key) const;

  const_iterator begin() const { return members.begin(); }
  const_iterator end() const { return members.end(); }
  std::size_t size() const { return members.size(); }
  bool empty() const { return members.empty(); }

  /// Objects compare as lists of pairs.
  friend bool operator==(const object &a, const object &b) { return a.members == b.members; }
  friend bool operator<(const object &a, const object &b) { return a.members < b.members; }

 private:
  /// The first member whose key is not less than `key`.
  const_iterator lowerBound(std::string_view key) const;

  std::vector<value_type> members;
};
