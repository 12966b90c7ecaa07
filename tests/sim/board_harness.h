// Drives the simulated board through its usb_ table, byte for byte, as the host would.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "access/usbio.h"
#include "run_tool.h"
#include "sim/sim.h"

using Bytes = std::vector<uint8_t>;

// One attached board with the adapter opened and interface 0 claimed.
struct BoardHarness {
  std::string dir;
  const usb_ops_t *ops = nullptr;
  usb_dev_handle *h = nullptr;

  explicit BoardHarness(std::string stateDir = make_temp_dir("kivsim")) : dir(std::move(stateDir)) { attach(); }
  ~BoardHarness() { sim_detach(); }
  BoardHarness(const BoardHarness &) = delete;
  BoardHarness &operator=(const BoardHarness &) = delete;

  void attach();
  void reattach() { sim_detach(); attach(); }
  struct usb_device *find(uint16_t vid, uint16_t pid);

  int out(const Bytes &b, int timeoutMs = 20);
  // One IN transfer; `rc` gets the libusb result, the bytes read are returned.
  Bytes in(int size, int &rc, int timeoutMs = 20);
  // Status byte (or -rc when the read failed).
  int status();

  // Whole exchanges with the chip (header, status, data, completion) returning the status
  // bytes seen; reads return the data section of the response.
  uint32_t i2c_read(uint32_t addr24);
  void i2c_write(uint32_t addr24, uint32_t value);
  uint32_t spi_read(uint32_t addr24);
  void spi_write(uint32_t addr24, uint32_t value);
  uint16_t smi_read(uint8_t phy, uint8_t reg);
  void smi_write(uint8_t phy, uint8_t reg, uint16_t value);
};

// Command header builders (24 bytes plus the address block).
Bytes hdr(uint8_t code, uint8_t sub, const Bytes &addrBlock = {});
Bytes config_hdr(uint8_t code, uint8_t paramA, uint16_t paramB);
Bytes write_hdr(uint8_t code, const Bytes &addrBlock, uint16_t dataLen);
Bytes read_hdr(uint8_t code, const Bytes &addrBlock, uint16_t dataLen);
Bytes smi_hdr(uint8_t code, uint8_t phy, uint8_t reg);
Bytes flash_hdr(uint8_t code, uint32_t flashAddr, uint16_t len, uint8_t flag, uint8_t param = 15);
Bytes data_pkt(const Bytes &data);
Bytes i2c_addr(uint32_t a);
Bytes le32(uint32_t v);
Bytes be32(uint32_t v);

// Scoped environment variable.
struct EnvVar {
  std::string name;
  EnvVar(const char *n, const char *v) : name(n) { setenv(n, v, 1); }
  ~EnvVar() { unsetenv(name.c_str()); }
};
