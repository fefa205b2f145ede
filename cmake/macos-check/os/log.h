/* Replaces macOS's <os/log.h> for script/check-macos, which compiles without Apple's SDK. It has
 * the few declarations that the program uses, with the same names, types and checks: formats must
 * be literals, and the compiler checks the arguments. Do not include it anywhere else. */
#ifndef LLDB_HELPER_MACOS_CHECK_OS_LOG_H
#define LLDB_HELPER_MACOS_CHECK_OS_LOG_H

#pragma clang system_header

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

struct os_log_s;
typedef struct os_log_s *os_log_t;
typedef uint8_t os_log_type_t;

#define OS_LOG_TYPE_DEFAULT ((os_log_type_t)0x00)

extern struct os_log_s _os_log_default;
#define OS_LOG_DEFAULT (&_os_log_default)

os_log_t os_log_create(const char *subsystem, const char *category);
bool os_log_type_enabled(os_log_t log, os_log_type_t type);
void _os_log_impl(void *image, os_log_t log, os_log_type_t type, const char *format,
                  uint8_t *arguments, uint32_t size);

/* The linker's name for the image that contains this code. */
extern struct mach_header __dso_handle;

#define os_log(log, format, ...)                                                          \
  __extension__({                                                                         \
    os_log_t _log = (log);                                                                \
    if (os_log_type_enabled(_log, OS_LOG_TYPE_DEFAULT)) {                                 \
      static const char _format[]                                                         \
          __attribute__((section("__TEXT,__oslogstring,cstring_literals"))) = format;     \
      uint8_t _arguments[__builtin_os_log_format_buffer_size(format, ##__VA_ARGS__)]      \
          __attribute__((aligned(16)));                                                   \
      _os_log_impl(&__dso_handle, _log, OS_LOG_TYPE_DEFAULT, _format,                     \
                   (uint8_t *)__builtin_os_log_format(_arguments, format, ##__VA_ARGS__), \
                   (uint32_t)sizeof(_arguments));                                         \
    }                                                                                     \
  })

#ifdef __cplusplus
}
#endif

#endif
