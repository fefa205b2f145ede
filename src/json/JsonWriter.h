#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// How scalars look on the wire; arrays and objects are put together from these in Json.cpp.

void appendNumber(std::string &out, std::int32_t value);
void appendNumber(std::string &out, std::uint64_t value);

/// As printf's "%.17g", so that every double reads back as the same double. JSON has no word for an
/// infinity or a NaN: those become "null".
void appendNumber(std::string &out, double value);

/// In double quotes. Bytes below 0x20, the quote and the backslash are escaped; so are U+2028 and
/// U+2029, which are line ends to JavaScript. All other bytes go out unchanged, UTF-8 or not.
void appendQuoted(std::string &out, const std::string &text);

/// The bytes as an array of numbers from 0 to 255, and the size of that text.
void appendByteArray(std::string &out, const std::uint8_t *bytes, std::size_t count);
std::size_t byteArraySize(const std::uint8_t *bytes, std::size_t count);
