/* Four threads that count, each its own number. */
#include <pthread.h>
#include <stdio.h>
#include <unistd.h>

static pthread_barrier_t start;
static volatile unsigned long numbers[4];

static void *count(void *number) {
  pthread_barrier_wait(&start);
  while (number) ++*(volatile unsigned long *)number;
  return number;
}

int main(void) {
  pthread_t thread;
  alarm(120);
  pthread_barrier_init(&start, 0, 4);
  for (int at = 1; at < 4; ++at) pthread_create(&thread, 0, count, (void *)&numbers[at]);
  puts("ready");
  fflush(stdout);
  return count((void *)&numbers[0]) != 0;
}
