// Which USB I/O adapter the tool opens when a host has several, and staying with it.
//
// An adapter is known by its port path (the kernel's sysfs name, "1-3.1"), its serial
// number (may be missing or shared by clones) and, until it is replugged, its bus and device
// numbers. All of it is read from sysfs, without any device I/O. The selector given by the
// user names the adapter to open; after the first successful open the adapter's port path
// (and serial) are kept, and every later open takes that adapter or none.
#pragma once

#include <array>
#include <cstddef>
#include <cstdio>

// One adapter as sysfs shows it.
struct UsbioAdapter {
  std::array<char, 32> port{};     // port path, "1-3.1"
  std::array<char, 128> serial{};  // "" when the device has none
  unsigned busnum = 0, devnum = 0;
};
constexpr size_t kUsbioMaxAdapters = 32;

// Parses a selector: "path:1-3.1" (or a bare "1-3.1"), "serial:TEXT" or "dev:BUS/DEV".
// Null or "" selects nothing (the first adapter found is taken). Returns false for a
// malformed selector, which leaves the selection as it was.
bool usbio_select(const char *text);
// The selector as given ("" when none).
const char *usbio_selector(void);

// The adapters on the host, sorted by port path; returns how many were stored.
size_t usbio_adapters_scan(UsbioAdapter *out, size_t max);
// The device node of an adapter ("/dev/bus/usb/001/007").
void usbio_adapter_node(const UsbioAdapter &a, char *buf, size_t size);
// --list-adapters: a header line, then one tab-separated line per adapter.
void usbio_list_adapters(FILE *out);

// Whether adapters are told apart at all: only on the real USB stack (the simulated board
// has one adapter and no sysfs).
bool usbio_identity_active(void);

// The adapter the next open must take. Returns the number of adapters that match the
// selector or the kept identity (1: `*pick` is it), or -1 when nothing restricts the choice
// (no selector, no adapter opened yet). With 0 or several, nothing is to be opened.
int usbio_target(UsbioAdapter *pick);
// True when the next open has an adapter to take and this user may open its node.
bool usbio_target_ready(void);
// Called after an open: keeps the identity of the adapter at bus/dev when it was the first
// one, and says on standard error which one was taken when several were there.
void usbio_identity_opened(unsigned busnum, unsigned devnum);
// The port path and serial ("" when none) kept after the first open; false before it.
bool usbio_identity_kept(const char **port, const char **serial);
// Called when the open found nothing to take: one line on standard error (not repeated
// while the situation stays the same) names what was looked for and what is there.
void usbio_identity_missing(int matches);
