// Fuzz target: the console line editor. The input is a stream of key bytes (printable
// text, control keys, escape sequences, history keys) given to kiv_readLine on standard
// input; lines are read until the keys run out, and a help or completion request carries
// its text into the next read as the shell does.
#include <unistd.h>

#include <cstring>
#include <vector>

#include "fuzz/fuzz_util.h"
#include "shell/kivshell.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  fuzz_quietStdout();
  strcpy(kiv_prompt, "<HX5200/> ");
  kiv_promptLen = static_cast<int>(strlen(kiv_prompt));
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  // The keys wait in a pipe on descriptor 0 (inputs are far below a pipe's capacity).
  int keys[2];
  if (pipe(keys) != 0) abort();
  size_t done = 0;
  while (done < size) {
    const ssize_t w = write(keys[1], data + done, size - done);
    if (w <= 0) abort();
    done += static_cast<size_t>(w);
  }
  close(keys[1]);
  dup2(keys[0], 0);
  close(keys[0]);

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
  return 0;
}
