/* Replaces itself by exec six times while its threads run. Build: gcc -m32 -pthread program.c -o
 * program */
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

static void *run(void *unused) {
  for (;;) usleep(100);
  return unused;
}

int main(int argc, char **argv) {
  int count = argc > 1 ? atoi(argv[1]) : 6;
  pthread_t thread;
  for (int started = 0; started < 3; ++started) pthread_create(&thread, NULL, run, NULL);
  usleep(300);
  char text[16];
  snprintf(text, sizeof text, "%d", count - 1);
  if (count > 0) execl(argv[0], argv[0], text, (char *)NULL);
  return 0;
}
