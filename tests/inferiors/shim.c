/* Preloaded into the helper: replaces syslog(3), and delays its threads.

   SYSLOG_FILE    gets ident, priority and text of each record, with a byte 0x1e at its end
   SLOW_THREADS   seconds by which each std::thread begins late
   SLOW_EVENTS    milliseconds by which the event thread takes each event late, and then handles it
   late */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

static int setting(const char *name) { return getenv(name) ? atoi(getenv(name)) : 0; }

static const char *identity = "";

void openlog(const char *ident, int option, int facility) {
  (void)option, (void)facility;
  identity = ident;
}

/* Distributions that build with _FORTIFY_SOURCE call this instead of syslog. */
void __syslog_chk(int priority, int flag, const char *format, ...) {
  (void)flag;
  va_list arguments;
  va_start(arguments, format);
  FILE *file = fopen(getenv("SYSLOG_FILE") ? getenv("SYSLOG_FILE") : "/dev/null", "ae");
  fprintf(file, "%s %d ", identity, priority);
  vfprintf(file, format, arguments);
  fputc(0x1e, file);
  fclose(file);
  va_end(arguments);
}

void syslog(int priority, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const char *text = va_arg(arguments, const char *); /* the helper's format is "%s" */
  __syslog_chk(priority, 0, format, text);
  va_end(arguments);
}

/* The log exists, also where the system has none. */
static bool isLog(const char *path) { return getenv("SYSLOG_FILE") && !strcmp(path, "/dev/log"); }

int access(const char *path, int mode) {
  return isLog(path) ? 0 : faccessat(AT_FDCWD, path, mode, 0);
}

int connect(int descriptor, const struct sockaddr *address, socklen_t size) {
  if (address->sa_family != AF_UNIX || !isLog(address->sa_data))
    return (int)syscall(SYS_connect, descriptor, address, size);
  errno = EPROTOTYPE;
  return -1;
}

struct late {
  void *(*run)(void *);
  void *argument;
};

static void *runLate(void *data) {
  struct late late = *(struct late *)data;
  free(data);
  sleep(setting("SLOW_THREADS"));
  return late.run(late.argument);
}

int pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*run)(void *),
                   void *argument) {
  int (*create)(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *) =
      dlsym(RTLD_NEXT, "pthread_create");
  Dl_info caller;
  bool isOurs =
      dladdr(__builtin_return_address(0), &caller) && strstr(caller.dli_fname, "libstdc++");
  if (!isOurs || !setting("SLOW_THREADS")) return create(thread, attributes, run, argument);
  struct late *late = malloc(sizeof *late);
  *late = (struct late){run, argument};
  return create(thread, attributes, runLate, late);
}

/* lldb::SBListener::WaitForEvent(unsigned, lldb::SBEvent &) */
bool _ZN4lldb10SBListener12WaitForEventEjRNS_7SBEventE(void *listener, unsigned seconds,
                                                       void *event) {
  bool (*wait)(void *, unsigned, void *) =
      dlsym(RTLD_NEXT, "_ZN4lldb10SBListener12WaitForEventEjRNS_7SBEventE");
  usleep(1000 * setting("SLOW_EVENTS"));
  bool found = wait(listener, seconds, event);
  usleep(1000 * setting("SLOW_EVENTS"));
  return found;
}
