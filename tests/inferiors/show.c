/* Shows how it was started: arguments, working directory, environment, blocked signals,
 * descriptors. */
#include <dirent.h>
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
  fclose(status);
  DIR *folder = opendir("/proc/self/fd");
  for (struct dirent *entry; (entry = readdir(folder));) {
    ssize_t length = readlinkat(dirfd(folder), entry->d_name, text, sizeof text - 1);
    if (length > 0) printf("descriptor %s <%.*s>\n", entry->d_name, (int)length, text);
  }
  return 0;
}
