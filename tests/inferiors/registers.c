/* Fills the floating point and vector registers, and calls filled(). */
#include <string.h>

volatile int counted;

__attribute__((noinline)) void filled(void) { ++counted; }

int main(void) {
  unsigned char bytes[512];
  for (unsigned at = 0; at < sizeof bytes; ++at) bytes[at] = (unsigned char)(at * 31 + 7);
#if defined(__x86_64__)
  __asm__ volatile("fld1; fldpi; fldl2e; movups (%0), %%xmm0; movups 96(%0), %%xmm15" ::"r"(bytes));
  if (__builtin_cpu_supports("avx")) __asm__ volatile("vmovups 32(%0), %%ymm7" ::"r"(bytes));
#elif defined(__aarch64__)
  __asm__ volatile("ldp q0, q7, [%0]; ldp q15, q31, [%0, #32]" ::"r"(bytes));
#endif
  filled();
}
