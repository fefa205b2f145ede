/* Three threads: one calls work(), one sleeps, the first waits for both. */
#include <pthread.h>
#include <stdio.h>
#include <unistd.h>

static pthread_barrier_t start;

__attribute__((noinline)) void work(void) { puts("working"); }

static void *run(void *works) {
  pthread_barrier_wait(&start);
  if (works) work();
  if (!works) sleep(60);
  return works;
}

int main(void) {
  pthread_t worker, sleeper;
  alarm(120);
  pthread_barrier_init(&start, 0, 3);
  pthread_create(&worker, 0, run, &start);
  pthread_create(&sleeper, 0, run, 0);
  pthread_barrier_wait(&start);
  pthread_join(worker, 0);
  return pthread_join(sleeper, 0);
}
