/* The program that script/demo debugs. It writes to both output streams and exits with status 3. */
#include <stdio.h>
#include <stdlib.h>

int main(int argc, char **argv) {
  const char *greeting = getenv("GREETING");
  printf("%s, %s!\n", greeting ? greeting : "Hello", argc > 1 ? argv[1] : "nobody");
  fflush(stdout);
  fprintf(stderr, "sample: %d arguments, and this is its standard error\n", argc - 1);
  return 3;
}
