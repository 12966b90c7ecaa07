// Internal consistency checks of the command engine.
#pragma once

// Prints "\n%s:%s:%d:'%s'" (source file, function, line, condition), flushes and aborts.
[[noreturn]] void kiv_assertFailed(const char *file, const char *func, int line, const char *cond);

// The condition is stringised as written (macro names unexpanded) so that the report shows
// what the source says.
#define KIV_ASSERT_IN(file, cond)                                                  \
  do {                                                                             \
    if (!(cond)) kiv_assertFailed(file, __func__, __LINE__, #cond);                \
  } while (0)
