/* Three threads: one calls work(), one sleeps, the first waits for both. */
#include <pthread.h>
#include <stdio.h>
#include <unistd.h>

static pthread_barrier_t start;

__attribute__((noinline)) void work(void) { puts("working"); }

static void *worker(void *unused) {
  pthread_barrier_wait(&start);
  work();
  return unused;
}

static void *sleeper(void *unused) {
  pthread_barrier_wait(&start);
  sleep(60);
  return unused;
}

int main(void) {
  pthread_t threads[2];
  alarm(120);
  pthread_barrier_init(&start, 0, 3);
  pthread_create(&threads[0], 0, worker, 0);
  pthread_create(&threads[1], 0, sleeper, 0);
  pthread_barrier_wait(&start);
  pthread_join(threads[0], 0);
  return 0;
}
