/* Calls itself the number of times in its argument. Then code that belongs to no module calls
   bottom(). */
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>

/* Makes a frame and calls its argument. */
#if defined(__x86_64__)
static const unsigned char call[] = {0x55, 0x48, 0x89, 0xe5, 0xff, 0xd7, 0x5d, 0xc3};
#elif defined(__aarch64__)
static const unsigned char call[] = {0xfd, 0x7b, 0xbf, 0xa9, 0xfd, 0x03, 0x00, 0x91, 0x00, 0x00,
                                     0x3f, 0xd6, 0xfd, 0x7b, 0xc1, 0xa8, 0xc0, 0x03, 0x5f, 0xd6};
#endif

__attribute__((noinline)) void bottom(void) {}

__attribute__((noinline)) int recurse(int depth) {
  volatile int left = depth;
  if (left > 1) return recurse(left - 1) + left;
  void *page =
      mmap(0, 4096, PROT_READ | PROT_WRITE | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  memcpy(page, call, sizeof call);
  __builtin___clear_cache(page, (char *)page + sizeof call);
  ((void (*)(void (*)(void)))page)(bottom);
  return 0;
}

int main(int argc, char **argv) { return recurse(argc > 1 ? atoi(argv[1]) : 1) == 0; }
