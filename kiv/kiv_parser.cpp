// Command engine: tables, users, groups, tokeniser, dispatch and the report line.
#include "kiv/kiv_parser.h"

#include <cstdio>
#include <cstdlib>

char kiv_outputBuffer[KIV_OUTBUF_SIZE];
char kiv_pathBuffer[KIV_PATHBUF_SIZE];

// A failed consistency check reports where it failed and stops the program: printing the
// report first lets the engineer see it before the process ends.
void kiv_assertFailed(const char *file, const char *func, int line, const char *cond) {
  printf("\n%s:%s:%d:'%s'", file, func, line, cond);
  fflush(stdout);
  abort();
}
