/* Prints "ready" and waits for two minutes, so that no test can leave it running for ever. */
#include <stdio.h>
#include <unistd.h>

int main(void) {
  alarm(120);
  puts("ready");
  fflush(stdout);
  for (;;) pause();
}
