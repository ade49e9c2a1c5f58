/* The floor: reads one line, writes one line, ends. A process that does this much pays the price
   of the spawn and the pipes, and nothing else. */
#include <unistd.h>

int main(void) {
  char line[4096];
  if (read(0, line, sizeof line) <= 0) return 1;
  return write(1, "{}\n", 3) == 3 ? 0 : 1;
}
