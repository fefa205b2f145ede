/* Maps a block of memory with an unmapped page after it, fills it, prints its place, and waits. The
   argument is the size in MiB. */
#define _GNU_SOURCE
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

int main(int argc, char **argv) {
  size_t size = (argc > 1 ? strtoul(argv[1], 0, 10) : 1) << 20;
  unsigned char *memory =
      mmap(0, size + 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  alarm(120);
  munmap(memory + size, 4096);
  for (size_t at = 0; at < size; ++at) memory[at] = (unsigned char)(at * 7 + at / 4096);
  printf("%lu %lu\n", (unsigned long)memory, (unsigned long)size);
  fflush(stdout);
  for (;;) pause();
}
