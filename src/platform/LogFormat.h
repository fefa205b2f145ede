#pragma once

#include <cstdarg>
#include <string>

namespace platform {

/// Returns a record as plain text: removes the "{public}" marks from `format` and formats like
/// printf.
std::string formatRecord(const char *format, std::va_list arguments);

}  // namespace platform
