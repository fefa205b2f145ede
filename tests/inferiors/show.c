/* Shows how it was started: arguments, working directory, environment, blocked signals. */
#include <stdio.h>
#include <string.h>
#include <unistd.h>

extern char **environ;

int main(int argc, char **argv) {
  char text[4096];
  for (int i = 1; i < argc; ++i) printf("argument <%s>\n", argv[i]);
  printf("folder <%s>\n", getcwd(text, sizeof text));
  for (char **entry = environ; *entry; ++entry) printf("environment <%s>\n", *entry);
  FILE *status = fopen("/proc/self/status", "re");
  while (fgets(text, sizeof text, status))
    if (!strncmp(text, "SigBlk:", 7)) printf("blocked <%.16s>\n", text + 8);
  return fclose(status);
}
