/* Built with -O2. A signal handler calls stop() through functions that leave no frame of their own:
   one is inlined, one ends in a tail call. */
#include <signal.h>

static volatile int counted;

__attribute__((noinline)) void stop(void) { ++counted; }

static inline __attribute__((always_inline)) void inlined(void) {
  stop();
  ++counted;
}

__attribute__((noinline)) void outer(void) { inlined(); }

__attribute__((noinline)) void tail(void) {
  ++counted;
  outer();
}

static void handler(int number) {
  tail();
  counted += number;
}

int main(void) {
  signal(SIGALRM, handler);
  counted = raise(SIGALRM);
}
