#include "json/JsonWriter.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace {

constexpr std::string_view lineSeparator = "\xe2\x80\xa8";       // U+2028
constexpr std::string_view paragraphSeparator = "\xe2\x80\xa9";  // U+2029

/// True for the bytes that cannot simply be copied. 0xE2 is one of them because it may begin one of
/// the two separators.
constexpr std::array<bool, 256> makeSpecialBytes() {
  std::array<bool, 256> special{};
  for (std::size_t byte = 0; byte < 0x20; ++byte) special[byte] = true;
  special['"'] = special['\\'] = special[0xe2] = true;
  return special;
}
constexpr std::array<bool, 256> isSpecial = makeSpecialBytes();

template <typename Integer>
void appendInteger(std::string &out, Integer value) {
  char digits[24];
  const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
  out.append(digits, end);
}

/// Escapes the special byte at the start of `rest` and says how many bytes that took.
std::size_t appendEscape(std::string &out, std::string_view rest) {
  switch (rest[0]) {
    case '\\': out += "\\\\"; return 1;
    case '"': out += "\\\""; return 1;
    case '\b': out += "\\b"; return 1;
    case '\f': out += "\\f"; return 1;
    case '\n': out += "\\n"; return 1;
    case '\r': out += "\\r"; return 1;
    case '\t': out += "\\t"; return 1;
    case '\xe2':
      if (rest.substr(0, 3) == lineSeparator) {
        out += "\\u2028";
        return 3;
      }
      if (rest.substr(0, 3) == paragraphSeparator) {
        out += "\\u2029";
        return 3;
      }
      out += rest[0];
      return 1;
    default: {
      constexpr char hex[] = "0123456789abcdef";
      out += "\\u00";
      out += hex[rest[0] >> 4];
      out += hex[rest[0] & 0xf];
      return 1;
    }
  }
}

/// What an array holds for one byte: the number, and the separator in front of the next one.
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

/// Behind the last item stands no separator.
constexpr std::size_t separatorSize = 2;

}  // namespace

void appendNumber(std::string &out, std::int32_t value) { appendInteger(out, value); }

void appendNumber(std::string &out, std::uint64_t value) { appendInteger(out, value); }

void appendNumber(std::string &out, double value) {
  if (!std::isfinite(value)) {
    out += "null";
    return;
  }
  char digits[32];
  const int length = std::snprintf(digits, sizeof digits, "%.17g", value);
  out.append(digits, static_cast<std::size_t>(length));
}

void appendQuoted(std::string &out, const std::string &text) {
  const std::string_view bytes = text;
  out += '"';
  std::size_t position = 0;
  while (position < bytes.size()) {
    std::size_t end = position;
    while (end < bytes.size() && !isSpecial[static_cast<unsigned char>(bytes[end])]) ++end;
    out.append(bytes, position, end - position);
    position = end;
    if (position < bytes.size()) position += appendEscape(out, bytes.substr(position));
  }
  out += '"';
}

void appendByteArray(std::string &out, const std::uint8_t *bytes, std::size_t count) {
  out += '[';
  char piece[4096];
  std::size_t size = 0;
  for (std::size_t index = 0; index < count; ++index) {
    const ByteText &entry = byteTexts[bytes[index]];
    // Always all five: a fixed size is what makes this fast. The next entry overwrites the excess.
    std::memcpy(piece + size, entry.text, sizeof entry.text);
    size += entry.size;
    if (size > sizeof piece - sizeof entry.text) {
      out.append(piece, size);
      size = 0;
    }
  }
  out.append(piece, size);
  if (count > 0) out.resize(out.size() - separatorSize);
  out += ']';
}

std::size_t byteArraySize(const std::uint8_t *bytes, std::size_t count) {
  // The brackets take as much room as the separator that the last item does not have.
  if (count == 0) return 2;
  std::size_t size = 0;
  for (std::size_t index = 0; index < count; ++index) size += byteTexts[bytes[index]].size;
  return size;
}
