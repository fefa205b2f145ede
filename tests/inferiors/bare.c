/* Needs no library, so it can be built for another kind of machine: 32 bits. */
void _start(void) {
  for (;;) continue;
}
