// Serial NOR flash of the simulated board (a 32 Mbit part, JEDEC ID EF 40 16).
// The model sees whole chip-select cycles: the bytes the controller shifts out and the
// number of bytes it clocks back in. It knows nothing of registers or files: the memory
// is handed in by the owner (an mmap'ed image on the board, a plain buffer in tests).
#pragma once

#include <cstddef>
#include <cstdint>

#include "internal/common/spi_nor.h"

namespace sim {

struct NorFlash {
  static constexpr uint32_t kSize = 4u << 20;
  static constexpr uint32_t kPage = 256;
  static constexpr uint32_t kSector = 4096;
  static constexpr uint32_t kBlock = 65536;
  static constexpr uint8_t kManufacturer = 0xEF, kMemType = 0x40, kCapacity = 0x16;

  static constexpr uint8_t kWip = nor::kStatusWip;
  static constexpr uint8_t kWel = nor::kStatusWel;
  static constexpr uint8_t kProtect = nor::kStatusProtect;
  static constexpr uint8_t kQe = nor::kConfigQe;

  uint8_t *mem = nullptr;   // kSize bytes
  uint8_t status = 0;       // non-volatile status bits (never WIP or WEL)
  uint8_t config = 0;       // configuration (second status) register
  bool wel = false;

  // Busy time of program, erase and status write: the number of status reads that still
  // show WIP, and a wall-clock limit after which the operation is over anyway (for callers
  // that wait instead of polling). Negative: that way never ends the operation.
  long busyPolls = 1;
  long busyMs = 20;
  // The n-th erase of the run (from 1) is the last thing the host does: the process is
  // killed right after it, as a power cut would stop it. 0: never.
  long killAfterErase = 0;

  // Runs one chip-select cycle. tx holds the opcode, address and data the controller
  // sends; rx receives rxLen bytes clocked in afterwards on `lines` data lines (1, 2, 4).
  // Returns true when the cycle was a data read (the kind of transfer that suffers from a
  // badly placed sample point).
  bool transfer(const uint8_t *tx, size_t txLen, uint8_t *rx, size_t rxLen, unsigned lines);

  bool busy();              // WIP, ending the operation once its time has passed
  uint8_t read_status();    // as opcode 0x05 sees it (counts as one poll)
  bool is_protected() const { return (status & kProtect) != 0; }

 private:
  long pollsLeft_ = 0;
  int64_t busyUntilUs_ = 0;
  bool wip_ = false;
  long erases_ = 0;

  void start_busy();
  void program(uint32_t addr, const uint8_t *data, size_t len);
  void erase(uint32_t addr, uint32_t size);
};

// Deterministic garbage for bytes sampled at the wrong moment: a one-bit slip towards the
// next byte, inverted, so that erased (0xFF) areas do not read back correct by accident.
void nor_scramble(uint8_t *bytes, size_t len);

}  // namespace sim
