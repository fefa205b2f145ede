/* Four threads that count, each its own number. "ready" comes when all do: a thread that waits for
   another one does not end a step. */
#include <pthread.h>
#include <stdio.h>
#include <unistd.h>

static volatile unsigned long numbers[4];

static void *count(void *number) {
  while (number) ++*(volatile unsigned long *)number;
  return number;
}

int main(void) {
  pthread_t thread;
  alarm(120);
  for (int at = 1; at < 4; ++at) {
    pthread_create(&thread, 0, count, (void *)&numbers[at]);
    while (numbers[at] == 0) continue;
  }
  puts("ready");
  fflush(stdout);
  return count((void *)&numbers[0]) != 0;
}
