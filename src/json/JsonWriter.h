#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

/// Puts a value's text at the end of a string: how scalars look on the wire. Arrays and objects are
/// put together from these in Json.cpp.
///
/// Pieces are collected in a buffer first: a text is made of very many very short ones, which would
/// each cost a check of the string's room. So the string is complete only after finish().
class JsonWriter {
 public:
  /// Keeps a reference to `out`.
  explicit JsonWriter(std::string &out) : out(out) {}
  JsonWriter(const JsonWriter &) = delete;
  JsonWriter &operator=(const JsonWriter &) = delete;

  void finish();

  /// As it stands: punctuation, words. Shorter than the buffer.
  void plain(std::string_view text) {
    makeRoom(text.size());
    std::memcpy(buffer + size, text.data(), text.size());
    size += text.size();
  }

  void number(std::int32_t value);
  void number(std::uint64_t value);

  /// As printf's "%.17g", so that every double reads back as the same double. JSON has no word for
  /// an infinity or a NaN: those become "null".
  void number(double value);

  /// In double quotes. Bytes below 0x20, the quote and the backslash are escaped; so are U+2028 and
  /// U+2029, which are line ends to JavaScript. All other bytes go out unchanged, UTF-8 or not.
  void quoted(std::string_view text);

  /// The bytes as an array of numbers from 0 to 255.
  void byteArray(const std::uint8_t *bytes, std::size_t count);
  /// The size of that array's text.
  static std::size_t byteArraySize(const std::uint8_t *bytes, std::size_t count);

 private:
  static constexpr std::size_t room = 4096;

  void flush();
  /// Afterwards `count` more bytes, at most `room`, fit into the buffer.
  void makeRoom(std::size_t count) {
    if (count > room - size) flush();
  }
  /// Without the limit of plain().
  void copy(std::string_view text);
  /// Escapes the special byte at the start of `rest` and says how many bytes that took.
  std::size_t escape(std::string_view rest);
  template <typename Integer>
  void integer(Integer value);

  std::string &out;
  char buffer[room];
  std::size_t size = 0;
};
