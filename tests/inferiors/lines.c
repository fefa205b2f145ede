/* Prints numbered lines of 7 digits, as many as its argument says. */
#include <stdio.h>
#include <stdlib.h>

int main(int argc, char **argv) {
  const int first = 1000000, count = argc > 1 ? atoi(argv[1]) : 1;
  for (int number = first; number < first + count; ++number) printf("%d\n", number);
  return 0;
}
