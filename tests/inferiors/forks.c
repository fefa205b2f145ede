/* Starts children or gets signals: LLDB stops for them and resumes by itself.
   usage: forks fork|vfork|spawn|shell|timer|calls [COUNT]; ends with status 5 */
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;
static volatile sig_atomic_t ticks;
volatile int calls;

static void onTick(int signal) { ticks += signal == SIGALRM; }

void call(void) { ++calls; }

int main(int argc, char **argv) {
  const char *how = argc > 1 ? argv[1] : "fork";
  int count = argc > 2 ? atoi(argv[2]) : 5;
  char *command[] = {"true", NULL};
  const struct itimerval every = {{0, 2000}, {0, 2000}};
  signal(SIGALRM, onTick);
  if (!strcmp(how, "timer")) setitimer(ITIMER_REAL, &every, NULL);
  for (int round = 0; round < count; ++round) {
    pid_t child = -1;
    call();
    if (!strcmp(how, "timer"))
      while (ticks <= round) pause();
    if (!strcmp(how, "fork")) child = fork();
    if (!strcmp(how, "vfork")) child = vfork();
    if (child == 0) execvp(command[0], command);
    if (!strcmp(how, "spawn")) posix_spawnp(&child, command[0], NULL, NULL, command, environ);
    if (!strcmp(how, "shell") && system("true; true | cat")) return 1;
    if (child > 0) waitpid(child, NULL, 0);
  }
  puts("done");
  return 5;
}
