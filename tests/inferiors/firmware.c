/* No system below it: two cores of QEMU's machine "virt" count for ever, each in a function of its
 * own. */
#define STRING_OF(number) #number
#define STRING(number) STRING_OF(number)
#define CPU_ON 0xc4000003 /* a call of the firmware interface PSCI: starts a core */
#define STACK_SIZE 4096

volatile unsigned long counted[2];
char stacks[2][STACK_SIZE] __attribute__((aligned(16)));

void tick(int core) { counted[core] += 1; }

void first(void) {
  for (;;) tick(0);
}

void second(void) {
  for (;;) tick(1);
}

/* Both cores begin here. The first one starts the second. */
__asm__(
    ".text\n"
    ".globl _start\n"
    "_start:\n"
    "  mrs x19, mpidr_el1\n"
    "  and x19, x19, #3\n"
    "  ldr x1, =stacks + " STRING(STACK_SIZE) "\n"
    "  mov x2, #" STRING(STACK_SIZE) "\n"
    "  madd x1, x19, x2, x1\n"
    "  mov sp, x1\n"
    "  cbnz x19, second\n"
    "  ldr x0, =" STRING(CPU_ON) "\n"
    "  mov x1, #1\n"
    "  adr x2, _start\n"
    "  mov x3, #0\n"
    "  hvc #0\n"
    "  b first\n");
