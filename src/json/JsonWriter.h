#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

/// Appends the text of scalars and of byte arrays to a string. Json.cpp builds all other arrays and
/// the objects from these.
///
/// The text of a message consists of very many short pieces. Appending each to the string would
/// check the string's room each time, so the writer collects them in a buffer. The string is
/// complete only after finish().
class JsonWriter {
 public:
  /// Keeps a reference to `out`.
  explicit JsonWriter(std::string &out) : out(out) {}
  JsonWriter(const JsonWriter &) = delete;

  /// Appends what the buffer holds. Called once, at the end.
  void finish();

  /// Writes punctuation and words, unchanged. `text` must fit into the buffer.
  void plain(std::string_view text) {
    makeRoom(text.size());
    std::memcpy(buffer + size, text.data(), text.size());
    size += text.size();
  }

  void number(std::int32_t value);
  void number(std::uint64_t value);

  /// Writes what printf writes for "%.17g": every double reads back as the same double. JSON has no
  /// word for infinities and NaN, which become "null".
  void number(double value);

  /// Writes a string in double quotes. Escapes the bytes below 0x20, the quote, the backslash, and
  /// U+2028 and U+2029, which end a line in JavaScript. Writes all other bytes unchanged, whether
  /// they are UTF-8 or not.
  void quoted(std::string_view text);

  /// Writes the bytes as an array of numbers from 0 to 255.
  void byteArray(const std::uint8_t *bytes, std::size_t count);
  /// The size of that array's text.
  static std::size_t byteArraySize(const std::uint8_t *bytes, std::size_t count);

 private:
  static constexpr std::size_t room = 4096;

  void flush();
  /// Makes room for `count` more bytes in the buffer. `count` is at most `room`.
  void makeRoom(std::size_t count) {
    if (count > room - size) flush();
  }
  /// Writes a text of any size, unchanged.
  void copy(std::string_view text);
  /// Writes the special byte at the start of `rest`, or the separator that begins there. Returns
  /// how many bytes of `rest` that were.
  std::size_t escape(std::string_view rest);
  template <typename Integer>
  void integer(Integer value);

  std::string &out;
  char buffer[room];
  std::size_t size = 0;
};
