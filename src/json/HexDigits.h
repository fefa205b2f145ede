#pragma once

#include <array>
#include <string>

/// The two hexadecimal digits of a byte, in lower case.
constexpr std::array<char, 2> hexDigits(unsigned char byte) {
  constexpr char digits[] = "0123456789abcdef";
  return {digits[byte >> 4], digits[byte & 0xf]};
}

/// Appends the two hexadecimal digits of a byte to a text.
inline void appendHex(std::string &text, unsigned char byte) {
  const auto digits = hexDigits(byte);
  text.append(digits.data(), digits.size());
}
