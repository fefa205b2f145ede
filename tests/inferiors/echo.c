/* Prints every byte that it reads from its pty, in raw mode, up to an x. */
#include <stdio.h>
#include <termios.h>
#include <unistd.h>

int main(void) {
  struct termios raw;
  tcgetattr(0, &raw);
  cfmakeraw(&raw);
  raw.c_oflag |= OPOST | ONLCR;
  tcsetattr(0, TCSANOW, &raw);
  alarm(120);
  puts("ready");
  fflush(stdout);
  for (unsigned char byte = 0; byte != 'x' && read(0, &byte, 1) == 1;) {
    printf("%02x ", byte);
    fflush(stdout);
  }
}
