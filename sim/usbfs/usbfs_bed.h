// The simulated board at the kernel interface: umockdev fakes /sys and /dev/bus/usb for a
// child process started under its preload library, and this bed serves the usbfs ioctls of
// the adapter's device node from the board (the same board KIVTOOL_SIM gives in-process),
// so the unmodified tool and the real libusb-0.1 run against it as against a plugged-in
// adapter. Several adapters can be plugged at given port paths, each with its own serial and
// its own board (the bed swaps the one simulated board it holds between their state
// directories), and pulled and plugged back as the kernel does it. Built apart from the
// tool (it needs umockdev); the tests and benchmarks use it.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

struct UsbfsBedImpl;

class UsbfsBed {
 public:
  // What the kernel answers for the adapter's interface claim.
  enum class Claim { ok, busy, readOnlyNode };

  // Attaches the board kept in `boardDir` (KIVTOOL_SIM_FAULTS is read from this process's
  // environment at this moment, as the tool reads it at start-up).
  explicit UsbfsBed(const std::string &boardDir);
  ~UsbfsBed();
  UsbfsBed(const UsbfsBed &) = delete;
  UsbfsBed &operator=(const UsbfsBed &) = delete;

  // Devices in the order they are plugged in (and numbered: 002, 003, ... on bus 001).
  void plug_unrelated();   // a vendor-class device of another vendor
  void plug_decoy();       // 0x0C55:0x5730, same vendor, other product
  // An adapter 0x0C55:0x5731 on the bed's board. The board answers for the one that comes
  // first in bus order (the order libusb-0.1 walks); any other such adapter takes commands
  // and never answers.
  void plug_adapter();
  // Pulls the served adapter: its sysfs entry and its node leave the bed and its open
  // handles get ENODEV.
  void unplug_adapter();
  // Plugs the served adapter back into the port it left, as a new device number.
  void replug_adapter();

  // An adapter with a board of its own, kept in `boardDir`, at the port path `port`
  // ("1-3.1": bus 1, port 3 of the hub on port 1... as the kernel names it), with the serial
  // number `serial` ("" for none). It always answers. Returns its id for the calls below.
  int plug_adapter_at(const std::string &port, const std::string &serial, const std::string &boardDir);
  // Pulls adapter `id` as the kernel does: sysfs entry and node gone, open handles ENODEV.
  // Devices carry udev's keys (ID_VENDOR_ID, ID_MODEL_ID, ID_SERIAL_SHORT); a bed made in a
  // process under umockdev's preload also sends their "add" and "remove" events to the udev
  // monitors of the programs under it.
  void pull(int id);
  // Plugs adapter `id` back (same serial and board) into `port`, or the port it left when
  // empty, as a new device number.
  void plug_back(int id, const std::string &port = {});
  // Its node now ("" while pulled), and the interface claims made on any of its nodes.
  std::string node_of(int id) const;
  size_t claims_of(int id) const;
  // Writes the state of the board the bed holds to its files (to read them from outside).
  void flush_boards();

  void set_claim(Claim c);
  // Device node of the served adapter ("/dev/bus/usb/001/00N").
  std::string adapter_node() const;
  // Requests served so far (a run that made none never reached the bed).
  size_t ioctls_served() const;
  // Device nodes whose interface 0 was claimed at least once, in plug order.
  std::vector<std::string> claimed_nodes() const;

  // The environment a program needs to run under the bed (the preload library; the bed's
  // own directory is in this process's UMOCKDEV_DIR, which children inherit). With
  // `otherUser` the bed's directories and sockets are opened to every user first.
  std::vector<std::pair<std::string, std::string>> child_env(bool otherUser);

 private:
  std::unique_ptr<UsbfsBedImpl> d_;
};

// True when umockdev's preload library is installed; otherwise `why` names the packages.
bool usbfs_bed_available(std::string &why);
