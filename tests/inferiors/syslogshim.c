/* Takes the place of syslog(3) in the program: writes ident, priority and text of each record to
   the file that SYSLOG_FILE names. A record ends with a byte 0x1e. */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

static const char *identity = "";

void openlog(const char *ident, int option, int facility) {
  (void)option;
  (void)facility;
  identity = ident;
}

void vsyslog(int priority, const char *format, va_list arguments) {
  FILE *file = fopen(getenv("SYSLOG_FILE"), "ae");
  if (!file) return;
  fprintf(file, "%s %d ", identity, priority);
  vfprintf(file, format, arguments);
  fputc(0x1e, file);
  fclose(file);
}

void syslog(int priority, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  vsyslog(priority, format, arguments);
  va_end(arguments);
}

/* Somebody listens, also where there is no log. */
int access(const char *path, int mode) {
  return strcmp(path, "/dev/log") == 0 ? 0 : faccessat(AT_FDCWD, path, mode, 0);
}
int connect(int descriptor, const struct sockaddr *address, socklen_t size) {
  if (address->sa_family != AF_UNIX || strcmp(address->sa_data, "/dev/log") != 0)
    return (int)syscall(SYS_connect, descriptor, address, size);
  errno = EPROTOTYPE;
  return -1;
}

/* What distributions that build with _FORTIFY_SOURCE call in its place. */
void __syslog_chk(int priority, int flag, const char *format, ...) {
  (void)flag;
  va_list arguments;
  va_start(arguments, format);
  vsyslog(priority, format, arguments);
  va_end(arguments);
}
