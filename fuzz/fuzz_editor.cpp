// Fuzz target: the console line editor. The input is a stream of key bytes (printable
// text, control keys, escape sequences, history keys) given to kiv_readLine on standard
// input; lines are read until the keys run out, and a help or completion request carries
// its text into the next read as the shell does.
//
// The editor waits for and reads every key with system calls of its own (pselect, read)
// and flushes its echo before each wait. The target links with
// -Wl,--wrap=read,--wrap=pselect,--wrap=fflush and serves descriptor 0 from the input in
// memory, so a key costs no system call; every other descriptor and stream goes to the
// real calls. The editor on a real terminal is covered by the shell's pty and tmux tests.
#include <sys/select.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "fuzz/fuzz_util.h"
#include "shell/kivshell.h"

extern "C" ssize_t __real_read(int fd, void *buf, size_t n);
extern "C" int __real_pselect(int nfds, fd_set *rd, fd_set *wr, fd_set *ex, const struct timespec *timeout,
                              const sigset_t *mask);
extern "C" int __real_fflush(FILE *f);

namespace {
// The keys of the current input while kiv_readLine runs; null outside it.
const uint8_t *g_keys = nullptr;
size_t g_keysLeft = 0;
bool g_quiet = false;
}  // namespace

extern "C" ssize_t __wrap_read(int fd, void *buf, size_t n) {
  if (fd != 0 || !g_keys) return __real_read(fd, buf, n);
  const size_t k = n < g_keysLeft ? n : g_keysLeft;
  if (k) memcpy(buf, g_keys, k);
  g_keys += k;
  g_keysLeft -= k;
  return static_cast<ssize_t>(k);   // 0: end of input, as a closed pipe gives
}

// Standard input is always ready: a key or the end of input.
extern "C" int __wrap_pselect(int nfds, fd_set *rd, fd_set *wr, fd_set *ex, const struct timespec *timeout,
                              const sigset_t *mask) {
  if (!g_keys || nfds != 1 || !rd || wr || ex) return __real_pselect(nfds, rd, wr, ex, timeout, mask);
  return FD_ISSET(0, rd) ? 1 : 0;
}

// The echo goes to /dev/null: it is written when stdio's buffer fills, not per key.
extern "C" int __wrap_fflush(FILE *f) {
  if (g_quiet && f == stdout) return 0;
  return __real_fflush(f);
}

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  fuzz_quietStdout();
  // Descriptor 0 is no terminal, as with keys from a pipe: the editor keeps the terminal
  // settings alone and uses the default width.
  if (!freopen("/dev/null", "r", stdin)) abort();
  g_quiet = getenv("FUZZ_VERBOSE") == nullptr;
  strcpy(kiv_prompt, "<HX5200/> ");
  kiv_promptLen = static_cast<int>(strlen(kiv_prompt));
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  g_keys = data;
  g_keysLeft = size;

  // The shell's line buffer, at its exact size so that a write past it is caught.
  std::vector<char> line(KIV_LINE_SIZE, '\0');
  signed char lastTerminator = 0;
  for (int reads = 0; reads < 256; reads++) {
    const int n = kiv_readLine(line.data(), lastTerminator);
    if (n <= 0) break;
    // A line always comes back with its newline, terminated, within the buffer.
    FUZZ_CHECK(n < KIV_LINE_SIZE);
    FUZZ_CHECK(line[static_cast<size_t>(n)] == '\0' && line[static_cast<size_t>(n) - 1] == '\n');
    FUZZ_CHECK(strlen(line.data()) == static_cast<size_t>(n));
    lastTerminator = n >= 2 ? line[static_cast<size_t>(n) - 2] : 0;
    if (lastTerminator == '\t' || lastTerminator == '?') {
      line[static_cast<size_t>(n) - 1] = '\0';   // the text goes on in the next read
    } else {
      lastTerminator = 0;
      line[0] = '\0';
    }
  }
  g_keys = nullptr;
  g_keysLeft = 0;
  return 0;
}
