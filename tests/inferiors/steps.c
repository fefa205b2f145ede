/* Calls for breakpoints, and for steps into, over and out of them. Prints what it counted. */
#include <stdio.h>

volatile int counted;

__attribute__((noinline)) int leaf(int number) {
  counted += number;
  return counted;
}

__attribute__((noinline)) int middle(int number) { return leaf(number) + leaf(number); }

int main(void) {
  for (int round = 0; round < 5; ++round) middle(round);
  printf("counted %d\n", counted);
}
