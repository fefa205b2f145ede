/* A host for lldb-helper in C without libraries (POSIX). It debugs a small program from its launch
   to its exit, and shows every message on the two pipes. host.py explains the rules for hosts.

   Usage: host HELPER PROGRAM

   One thread is enough here. This host sends a request only after the response to the one before,
   so it is reading whenever the helper writes, or the pipe is empty. A host that does other work
   between its requests needs a thread that reads. */
#define _XOPEN_SOURCE 700

#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <signal.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

static int requests, messages; /* descriptors: to the helper, from the helper */
static uint64_t next_id = 1;
static char output[65536]; /* the program's output, decoded */
static size_t output_size;
static char state[32]; /* of the last state event, until await_state has seen it */
static int exit_status = -1;

/* When this process ends, the helper's input ends. The helper then aborts, and ends a stopped
   program. */
static void fail(const char *what) {
  fprintf(stderr, "%s\n", what);
  exit(1);
}

static void start(const char *program) {
  int down[2], up[2];
  if (pipe(down) != 0 || pipe(up) != 0) fail("no pipe");
  /* No child may hold our ends. Otherwise the helper itself would keep its input open. */
  fcntl(down[1], F_SETFD, FD_CLOEXEC);
  fcntl(up[0], F_SETFD, FD_CLOEXEC);
  signal(SIGPIPE, SIG_IGN); /* otherwise a write after the helper's end ends the host */
  char in[16], out[16];
  snprintf(in, sizeof in, "%d", down[0]);
  snprintf(out, sizeof out, "%d", up[1]);
  const pid_t child = fork();
  if (child < 0) fail("no child");
  if (child == 0) {
    signal(SIGPIPE, SIG_DFL); /* exec keeps ignored signals ignored */
    execlp(program, program, in, out, (char *)NULL);
    _exit(127);
  }
  close(down[0]);
  close(up[1]);
  requests = down[1];
  messages = up[0];
}

/* A read or a write may transfer less than requested. */
static void write_all(const void *bytes, size_t size) {
  for (size_t done = 0; done < size;) {
    const ssize_t count = write(requests, (const char *)bytes + done, size - done);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) fail("the helper has ended");
    done += (size_t)count;
  }
}

static void read_all(void *bytes, size_t size) {
  for (size_t done = 0; done < size;) {
    const ssize_t count = read(messages, (char *)bytes + done, size - done);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) fail("the helper has ended");
    done += (size_t)count;
  }
}

/* Returns the text of the first value with this name, at any depth, or NULL. Compares only names,
   and skips strings. Relies on the helper's form: `"name": value`, names without escapes, members
   in byte order of their names. Use it only for names that are unique in a message. Anything else
   needs a parser. */
static const char *member(const char *text, const char *name) {
  const size_t length = strlen(name);
  while ((text = strchr(text, '"')) != NULL) {
    const char *begin = ++text;
    for (; *text != '"'; text++)
      if (*text == '\0' || (*text == '\\' && *++text == '\0')) return NULL;
    const size_t size = (size_t)(text++ - begin);
    if (*text == ':' && size == length && memcmp(begin, name, length) == 0) return text + 2;
  }
  return NULL;
}

static int member_is(const char *text, const char *name, const char *value) {
  const char *found = member(text, name);
  return found != NULL && *found == '"' && strncmp(found + 1, value, strlen(value)) == 0 &&
         found[1 + strlen(value)] == '"';
}

/* Integers are unsigned 64-bit numbers. A double cannot hold all of those above 2^53. */
static uint64_t member_number(const char *text, const char *name) {
  const char *found = member(text, name);
  return found != NULL ? strtoull(found + (*found == '"'), NULL, 0) : 0;
}

/* Returns the next message. The caller frees it. */
static char *receive(void) {
  uint32_t length; /* in the machine's byte order */
  read_all(&length, sizeof length);
  char *text = malloc((size_t)length + 1);
  if (text == NULL) fail("no memory");
  read_all(text, length);
  text[length] = '\0';
  printf("<- %s\n", text);
  return text;
}

static void take_event(const char *event) {
  if (member_is(event, "type", "state")) {
    const char *name = member(event, "state_desc");
    snprintf(state, sizeof state, "%.*s", (int)strcspn(name + 1, "\""), name + 1);
    if (member(event, "exit_status")) exit_status = (int)member_number(event, "exit_status");
  } else if (member_is(event, "type", "stdout") || member_is(event, "type", "stderr")) {
    unsigned byte; /* two hexadecimal digits each */
    for (const char *at = member(event, "output") + 1; sscanf(at, "%2x", &byte) == 1; at += 2)
      if (output_size < sizeof output - 1) output[output_size++] = (char)byte;
  }
}

/* Sends a request: a command and its arguments in printf's form, each after a comma. Handles the
   events that arrive first. Returns the response, which the caller frees. */
static char *ask(const char *command, const char *format, ...) {
  char text[16384];
  int size =
      snprintf(text, sizeof text, "{\"command\": \"%s\", \"id\": %" PRIu64, command, next_id);
  va_list arguments;
  va_start(arguments, format);
  size += vsnprintf(text + size, sizeof text - (size_t)size - 1, format, arguments);
  va_end(arguments);
  if (size >= (int)sizeof text - 2) fail("the request is too long");
  text[size++] = '}';
  const uint32_t length = (uint32_t)size;
  printf("-> %.*s\n", size, text);
  write_all(&length, sizeof length);
  write_all(text, length);
  for (;;) {
    char *message = receive();
    if (!member_is(message, "status", "event")) {
      if (!member_is(message, "status", "ok") || member_number(message, "id") != next_id) {
        const char *reason = member(message, "message");
        const char *end = reason ? strstr(reason, "\", \"status\"") : NULL; /* the next member */
        if (end != NULL)
          fprintf(stderr, "%s: %.*s\n", command, (int)(end - reason - 1), reason + 1);
        fail("docs/troubleshooting.md explains this message under \"Launching\".");
      }
      next_id++;
      return message;
    }
    take_event(message);
    free(message);
  }
}

static void await_state(const char *wanted) {
  while (strcmp(state, wanted) != 0) {
    if (strcmp(state, "eStateExited") == 0) fail("the program has exited");
    char *event = receive();
    take_event(event);
    free(event);
  }
  state[0] = '\0'; /* the next run starts without a state */
}

/* Returns the text as a JSON string, with its quotes. The caller frees it. */
static char *quoted(const char *text) {
  char *json = malloc(6 * strlen(text) + 3), *at = json;
  if (json == NULL) fail("no memory");
  *at++ = '"';
  for (; *text != '\0'; text++) {
    if (*text == '"' || *text == '\\' || (unsigned char)*text < 0x20)
      at += sprintf(at, "\\u%04x", (unsigned)*text);
    else
      *at++ = *text;
  }
  strcpy(at, "\"");
  return json;
}

int main(int argc, char **argv) {
  if (argc != 3) fail("usage: host HELPER PROGRAM");
  setvbuf(stdout, NULL, _IOLBF, 0);
  start(argv[1]);
  char folder[4096];
  char *full = realpath(argv[2], NULL);
  if (full == NULL || getcwd(folder, sizeof folder) == NULL) fail("no such program");
  char *path = quoted(full), *cwd = quoted(folder), *env = quoted("GREETING=\"Good morning\"");
  free(ask("prepareExecutable",
           ", \"path\": %s, \"args\": \"world\", \"env\": %s, \"cwd\": %s, \"triple\": \"\", "
           "\"is64Bits\": true",
           path, env, cwd));
  free(full), free(path), free(cwd), free(env);
  free(ask("createProcess", ""));
  await_state("eStateStopped");

  char *frames = ask("getCallstack", ""), *registers = ask("getRegisters", "");
  const uint64_t pc = member_number(frames, "pc");
  const char *counter = member(registers, "rip") ? "rip" : "pc"; /* x86-64's name, or ARM's */
  printf("   pc 0x%" PRIx64 "\n", pc);
  if (pc == 0 || pc != member_number(registers, counter)) fail("pc is not exact");
  free(frames), free(registers);

  free(ask("continueExecution", ""));
  await_state("eStateExited");
  free(ask("deleteProcess", ""));
  close(requests); /* the helper ends at the end of its input */
  int ending = 0;
  while (wait(&ending) < 0 && errno == EINTR) continue;
  printf("%sexit status %d\nthe helper ended with %d\n", output, exit_status, ending);
  return strstr(output, "Good morning, world!") && exit_status == 3 && ending == 0 ? 0 : 1;
}
