#include "platform/Log.h"

namespace platform {

namespace {

LogSink currentSink = nullptr;

}  // namespace

void setLogSink(LogSink sink) { currentSink = sink; }

bool logToSink(const char *format, ...) {
  if (currentSink == nullptr) return false;
  std::va_list arguments;
  va_start(arguments, format);
  currentSink(formatRecord(format, arguments));
  va_end(arguments);
  return true;
}

}  // namespace platform
