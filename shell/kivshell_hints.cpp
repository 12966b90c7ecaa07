// Hints for a person at a terminal: when a failure has a cause the tool knows, one short
// line on standard error says what is wrong and what to try. Nothing is printed when
// standard error is not a terminal (scripts and logs see only the command's own output).
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>

#include "access/access.h"
#include "access/usbio.h"
#include "shell/kivshell.h"

namespace {

// The hint shown last; a cause that persists over several lines is named once.
unsigned g_lastShown = 0;
// Once the adapter has left the bus, a missing adapter is that same cause.
bool g_gone = false;

bool forPerson() { return isatty(2) != 0; }

void hintLine(const char *text) {
  fflush(stdout);   // after the command's own output
  fprintf(stderr, "kivtool: hint: %s\n", text);
}

}  // namespace

void kiv_hintBoard(const char *dir) {
  if (!forPerson() || dir == nullptr || *dir == '\0') return;
  char full[PATH_MAX];
  const char *shown = realpath(dir, full) ? full : dir;
  fflush(stdout);
  fprintf(stderr, "kivtool: simulated board in %s (remove the directory to power-cycle it)\n", shown);
}

void kiv_hintAfterLine(void) {
  const unsigned trouble = usbio_trouble_take();
  if (!forPerson()) return;
  // One line, the most telling cause first. An adapter that could not be opened for
  // another reason (permissions, in use) is reported when it is opened.
  unsigned kind = 0;
  if (trouble & USBIO_TROUBLE_GONE) g_gone = true;
  if ((trouble & USBIO_TROUBLE_GONE) || (g_gone && (trouble & USBIO_TROUBLE_NO_ADAPTER)))
    kind = USBIO_TROUBLE_GONE;
  else if ((trouble & USBIO_TROUBLE_NO_ADAPTER) && usbio_open_cause() == ENOENT)
    kind = USBIO_TROUBLE_NO_ADAPTER;
  else if (trouble & USBIO_TROUBLE_I2C_NAK)
    kind = USBIO_TROUBLE_I2C_NAK;
  if (kind == 0 || kind == g_lastShown) {
    g_lastShown = kind;
    return;
  }
  g_lastShown = kind;
  char text[240];
  switch (kind) {
    case USBIO_TROUBLE_GONE:
      snprintf(text, sizeof text,
               "the USB I/O adapter left the bus (unplugged?): plug it back in, then reconnect (set i2cid %u)",
               static_cast<unsigned>(i2caddrid));
      break;
    case USBIO_TROUBLE_NO_ADAPTER:
      snprintf(text, sizeof text,
               "no USB I/O adapter (0c55:5731) found: plug it in, then reconnect (set i2cid %u); "
               "KIVTOOL_SIM=<dir> uses the simulated board",
               static_cast<unsigned>(i2caddrid));
      break;
    default:
      snprintf(text, sizeof text,
               "nothing answers at I2C device address 0x%02x (i2caddrid %u): check the board's power and "
               "cable, and i2caddrid in kivcfg.txt or `set i2cid` (the default 4 is 0xa8)",
               static_cast<unsigned>((0xA0 | (i2caddrid << 1)) & 0xFF), static_cast<unsigned>(i2caddrid));
      break;
  }
  hintLine(text);
}
