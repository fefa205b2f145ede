#include "json/JsonWriter.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "json/HexDigits.h"

namespace {

constexpr std::string_view lineSeparator = "\xe2\x80\xa8";       // U+2028
constexpr std::string_view paragraphSeparator = "\xe2\x80\xa9";  // U+2029

/// True for the bytes that cannot simply be copied. 0xE2 may begin one of the two separators.
constexpr std::array<bool, 256> makeSpecialBytes() {
  std::array<bool, 256> special{};
  for (std::size_t byte = 0; byte < 0x20; ++byte) special[byte] = true;
  special['"'] = special['\\'] = special[0xe2] = true;
  return special;
}
constexpr std::array<bool, 256> isSpecial = makeSpecialBytes();

/// The text of one byte in an array: its number, and the separator before the next number.
struct ByteText {
  char text[5];
  std::uint8_t size;
};

constexpr std::array<ByteText, 256> makeByteTexts() {
  std::array<ByteText, 256> texts{};
  for (int number = 0; number < 256; ++number) {
    ByteText &entry = texts[static_cast<std::size_t>(number)];
    for (int unit = 100; unit > 0; unit /= 10)
      if (number >= unit || unit == 1)
        entry.text[entry.size++] = static_cast<char>('0' + number / unit % 10);
    entry.text[entry.size++] = ',';
    entry.text[entry.size++] = ' ';
  }
  return texts;
}
constexpr std::array<ByteText, 256> byteTexts = makeByteTexts();

/// The size of ", ", which stands after every item but the last.
constexpr std::size_t separatorSize = 2;

}  // namespace

void JsonWriter::flush() {
  out.append(buffer, size);
  size = 0;
}

void JsonWriter::finish() { flush(); }

void JsonWriter::copy(std::string_view text) {
  if (text.size() <= room) return plain(text);
  flush();
  out.append(text);
}

template <typename Integer>
void JsonWriter::integer(Integer value) {
  constexpr std::size_t mostDigits = 20;
  makeRoom(mostDigits);
  size = static_cast<std::size_t>(std::to_chars(buffer + size, buffer + room, value).ptr - buffer);
}

void JsonWriter::number(std::int32_t value) {
  const auto index = static_cast<std::uint32_t>(value);
  if (index >= byteTexts.size()) return integer(value);
  const ByteText &entry = byteTexts[index];
  plain({entry.text, entry.size - separatorSize});
}

void JsonWriter::number(std::uint64_t value) { integer(value); }

void JsonWriter::number(double value) {
  if (!std::isfinite(value)) return plain("null");
  char digits[32];
  const int length = std::snprintf(digits, sizeof digits, "%.17g", value);
  plain({digits, static_cast<std::size_t>(length)});
}

void JsonWriter::quoted(std::string_view text) {
  plain("\"");
  while (!text.empty()) {
    const auto special = std::find_if(text.begin(), text.end(), [](char byte) {
      return isSpecial[static_cast<unsigned char>(byte)];
    });
    const auto count = static_cast<std::size_t>(special - text.begin());
    copy(text.substr(0, count));
    text.remove_prefix(count);
    if (!text.empty()) text.remove_prefix(escape(text));
  }
  plain("\"");
}

std::size_t JsonWriter::escape(std::string_view rest) {
  switch (rest[0]) {
    case '\\': plain("\\\\"); return 1;
    case '"': plain("\\\""); return 1;
    case '\b': plain("\\b"); return 1;
    case '\f': plain("\\f"); return 1;
    case '\n': plain("\\n"); return 1;
    case '\r': plain("\\r"); return 1;
    case '\t': plain("\\t"); return 1;
    case '\xe2':
      if (rest.starts_with(lineSeparator)) {
        plain("\\u2028");
        return lineSeparator.size();
      }
      if (rest.starts_with(paragraphSeparator)) {
        plain("\\u2029");
        return paragraphSeparator.size();
      }
      plain(rest.substr(0, 1));
      return 1;
    default: {
      const auto digits = hexDigits(static_cast<unsigned char>(rest[0]));
      plain("\\u00");
      plain({digits.data(), digits.size()});
      return 1;
    }
  }
}

void JsonWriter::byteArray(const std::uint8_t *bytes, std::size_t count) {
  // Includes room for the rest of the message, so that a large text is not moved for its tail.
  constexpr std::size_t tail = 256;
  out.reserve(out.size() + size + byteArraySize(bytes, count) + tail);
  plain("[");
  constexpr std::size_t mostBytes = room / sizeof(ByteText::text);
  for (std::size_t index = 0; index < count;) {
    const std::size_t stop = std::min(count, index + mostBytes);
    makeRoom(room);
    char *to = buffer + size;
    for (; index < stop; ++index) {
      const ByteText &entry = byteTexts[bytes[index]];
      // Copies all five bytes, because a fixed size is fast. The next entry overwrites the excess.
      std::memcpy(to, entry.text, sizeof entry.text);
      to += entry.size;
    }
    size = static_cast<std::size_t>(to - buffer);
  }
  if (count > 0) size -= separatorSize;
  plain("]");
}

std::size_t JsonWriter::byteArraySize(const std::uint8_t *bytes, std::size_t count) {
  // The brackets are as long as the separator that the last item does not have.
  if (count == 0) return 2;
  std::size_t size = 0;
  for (std::size_t index = 0; index < count; ++index)
    size += std::size_t{3} + (bytes[index] >= 10) + (bytes[index] >= 100);
  return size;
}
