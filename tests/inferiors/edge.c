/* A thread whose stack ends where memory begins that blocks whoever touches it. */
#include <fcntl.h>
#include <linux/userfaultfd.h>
#include <pthread.h>
#include <stdio.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

enum { stack_size = 1 << 18, untouched_size = 1 << 20 };

__attribute__((noinline)) void leaf(void) { puts("at the edge"); }

/* So many frames that a debugger may read them in large pieces. */
__attribute__((noinline)) int descend(int depth) {
  if (depth > 0) return descend(depth - 1) + 1;
  leaf();
  return 0;
}

static void *run(void *argument) {
  descend(50);
  return argument;
}

int main(void) {
  alarm(120);
  char *memory = mmap(0, stack_size + untouched_size, PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  struct uffdio_api api = {.api = UFFD_API};
  struct uffdio_register untouched = {
      .range = {.start = (unsigned long)memory + stack_size, .len = untouched_size},
      .mode = UFFDIO_REGISTER_MODE_MISSING};
  int faults = (int)syscall(SYS_userfaultfd, O_CLOEXEC);
  if (faults < 0 || ioctl(faults, UFFDIO_API, &api) || ioctl(faults, UFFDIO_REGISTER, &untouched)) {
    puts("this system has no memory that blocks");
    return 2;
  }
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstack(&attributes, memory, stack_size);
  pthread_t thread;
  pthread_create(&thread, &attributes, run, 0);
  return pthread_join(thread, 0);
}
