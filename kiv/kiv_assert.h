// Internal consistency checks of the command engine.
#pragma once

// Prints "\n%s:%s:%d:'%s'" (source file, function, line, condition), flushes and aborts.
// The hook in the slot below, when one is set, runs first.
[[noreturn]] void kiv_assertFailed(const char *file, const char *func, int line, const char *cond);

// Hook slot run by a failed check before its report. A hook that returns lets the report
// and the stop follow; one that leaves by an exception takes the stop over (a fuzz target
// ends its input that way on a check that fires by design). Null empties the slot.
using kiv_assertHook = void (*)(const char *file, const char *func, int line, const char *cond);
void kiv_assertHookSet(kiv_assertHook hook);

// The condition is stringised as written (macro names unexpanded) so that the report shows
// what the source says.
#define KIV_ASSERT_IN(file, cond)                                                  \
  do {                                                                             \
    if (!(cond)) kiv_assertFailed(file, __func__, __LINE__, #cond);                \
  } while (0)
