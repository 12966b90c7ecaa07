// A small in-test USB I/O adapter behind the usb_ boundary: it enumerates a decoy and the
// adapter, answers the command/status/data protocol from plain register maps, and can be
// told to misbehave at the n-th command header it receives.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "access/usbio.h"

namespace fake {

// flashmissing answers 0xAC after the data; flashlate answers 0xAC and then 0xBA.
enum class Fault { none, nak, badstatus, nocomplete, wrongcode, flashmissing, flashlate, unplug };

struct Adapter {
  // Chip side.
  std::map<uint32_t, uint32_t> regs;                   // I2C and SPI registers (24-bit address)
  std::map<uint32_t, uint16_t> mdio;                   // (phy << 8 | reg) -> value
  uint8_t i2cDevice = 0;                               // from the last 0x11 configuration
  // Fault script: header number (from 1) -> fault.
  std::map<int, Fault> faults;
  bool unplugged = false;
  bool claimFails = false;
  int headers = 0;                                     // command headers received
  int opens = 0, closes = 0, claims = 0, releases = 0;
  std::vector<std::vector<uint8_t>> outs;              // every OUT transfer, in order
  std::vector<uint8_t> codes;                          // command code of every header
  std::deque<std::vector<uint8_t>> in;                 // pending IN data
  bool wrongcodeActive = false;
  // Pending write command waiting for its data packet.
  std::vector<uint8_t> pendingCmd;
  Fault pendingFault = Fault::none;
};

// Installs the fake (fresh state) as the usb_ table and returns it.
Adapter &install();
// Restores real libusb, closes any open adapter handle.
void uninstall();
Adapter &adapter();

}  // namespace fake

// pcap reading for the capture checks.
struct UsbRecord {
  char type = 0;
  uint8_t xferType = 0, ep = 0, devnum = 0, flagData = 0;
  uint16_t bus = 0;
  int32_t status = 0;
  uint32_t length = 0;
  uint64_t id = 0;
  std::vector<uint8_t> data;
};
bool read_pcap(const std::string &path, uint32_t &linkType, std::vector<UsbRecord> &records);
