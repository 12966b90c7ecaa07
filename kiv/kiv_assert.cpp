// Internal consistency checks of the command engine.
#include "kiv/kiv_assert.h"

#include <cstdio>
#include <cstdlib>

namespace {
kiv_assertHook g_assertHook;
}  // namespace

void kiv_assertHookSet(kiv_assertHook hook) { g_assertHook = hook; }

// A failed check reports where it failed and stops the program: printing the report first
// lets the engineer see it before the process ends.
void kiv_assertFailed(const char *file, const char *func, int line, const char *cond) {
  if (g_assertHook) g_assertHook(file, func, line, cond);
  printf("\n%s:%s:%d:'%s'", file, func, line, cond);
  fflush(stdout);
  abort();
}
