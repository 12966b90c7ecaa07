// Internal consistency checks of the command engine.
#include "kiv/kiv_assert.h"

#include <cstdio>
#include <cstdlib>

// A failed check reports where it failed and stops the program: printing the report first
// lets the engineer see it before the process ends.
void kiv_assertFailed(const char *file, const char *func, int line, const char *cond) {
  printf("\n%s:%s:%d:'%s'", file, func, line, cond);
  fflush(stdout);
  abort();
}
