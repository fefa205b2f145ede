#include "platform/Log.h"

#include <cstdio>
#include <string_view>

namespace platform {

std::string formatRecord(const char *format, std::va_list arguments) {
  constexpr std::string_view mark = "{public}";
  std::string plain = format;
  for (auto at = plain.find(mark); at != std::string::npos; at = plain.find(mark, at))
    plain.erase(at, mark.size());

  std::va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, plain.c_str(), again);
  va_end(again);
  if (length < 0) return plain;
  std::string text(static_cast<std::size_t>(length), '\0');
  std::vsnprintf(text.data(), text.size() + 1, plain.c_str(), arguments);
  return text;
}

}  // namespace platform
