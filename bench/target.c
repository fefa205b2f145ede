/* What the benchmarks debug. Usage: target work | target stack DEPTH | target modules FOLDER COUNT
   | target output BYTES | target threads COUNT. Built without -pie, so that every debugger sees the
   same addresses. */
#include <dlfcn.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <unistd.h>

unsigned char block[128 << 20];
volatile unsigned hits;

__attribute__((noinline)) void ready(void) { hits = 0; }
__attribute__((noinline)) void hit(void) { ++hits; }

__attribute__((noinline)) int descend(int depth) {
  if (depth > 0) return descend(depth - 1) + 1;
  for (;;) hit();
}

static void *waiting(void *unused) {
  for (;;) pause();
  return unused;
}

int main(int argc, char **argv) {
  prctl(PR_SET_PDEATHSIG, SIGKILL); /* ends with the benchmark */
  const char *job = argc > 1 ? argv[1] : "";
  if (strcmp(job, "stack") == 0) return descend(atoi(argv[2]));
  if (strcmp(job, "output") == 0) {
    for (int left = atoi(argv[2]); left > 0; left -= 64)
      puts("What one writes on a terminal, sixty-three bytes in every line.");
    return 0;
  }
  if (strcmp(job, "work") == 0)
    for (unsigned at = 0; at < sizeof block; ++at)
      block[at] = (unsigned char)(at * 2654435761u >> 24);
  if (strcmp(job, "threads") == 0) {
    for (int count = atoi(argv[2]); count > 1; --count) {
      pthread_t thread;
      if (pthread_create(&thread, NULL, waiting, NULL) != 0) return 1;
    }
  }
  if (strcmp(job, "modules") == 0) {
    for (int index = 0; index < atoi(argv[3]); ++index) {
      char file[4096];
      snprintf(file, sizeof file, "%s/libbench%d.so", argv[2], index);
      if (!dlopen(file, RTLD_NOW)) return 1;
    }
  }
  ready();
  for (;;) hit();
}
