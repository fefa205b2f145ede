/* Loads the library in its argument, calls it, unloads it, and calls done(). */
#include <dlfcn.h>
#include <stdio.h>

__attribute__((noinline)) void opened(void) { puts("opened"); }
__attribute__((noinline)) void done(void) { puts("done"); }

int main(int argc, char **argv) {
  void *library = dlopen(argc > 1 ? argv[1] : "", RTLD_NOW);
  if (!library) return 1;
  opened();
  int answer = ((int (*)(void))dlsym(library, "plugin"))();
  dlclose(library);
  done();
  return answer;
}
