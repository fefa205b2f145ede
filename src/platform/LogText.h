#pragma once

#include <cstdarg>
#include <string>

namespace platform {

/// A record as plain text: what printf makes of `format` once its "{public}" marks are taken out.
std::string logText(const char *format, std::va_list arguments);

}  // namespace platform
