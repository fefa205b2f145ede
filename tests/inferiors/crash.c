/* Prints what it is about to do, and writes to an address that is not mapped. */
#include <stdio.h>

int *volatile nowhere;

__attribute__((noinline)) void crash(void) { *nowhere = 1; }

int main(void) {
  puts("here goes");
  crash();
}
