// Serial NOR flash model: opcodes, write-enable latch, busy time, protection, page wrap.
#include "sim/sim_norflash.h"

#include <csignal>
#include <chrono>
#include <cstring>

#include "internal/common/spi_nor.h"

namespace sim {
namespace {

int64_t now_us() {
  using namespace std::chrono;
  return duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count();
}

uint32_t addr24(const uint8_t *tx) { return (uint32_t)tx[1] << 16 | (uint32_t)tx[2] << 8 | tx[3]; }

// Data lines a read opcode expects to be clocked in on; 0 for anything that is not a read.
unsigned read_lines(uint8_t op) {
  switch (op) {
    case nor::kRead: case nor::kFastRead: return 1;
    case nor::kDualRead: case nor::kDualIoRead: return 2;
    case nor::kQuadRead: case nor::kQuadIoRead: return 4;
    default: return 0;
  }
}

}  // namespace

void nor_scramble(uint8_t *bytes, size_t len) {
  for (size_t i = 0; i < len; ++i) {
    uint8_t next = i + 1 < len ? bytes[i + 1] : 0;
    bytes[i] = (uint8_t)~((bytes[i] << 1) | (next >> 7));
  }
}

void NorFlash::start_busy() {
  wip_ = true;
  pollsLeft_ = busyPolls;
  busyUntilUs_ = busyMs < 0 ? INT64_MAX : now_us() + busyMs * 1000;
}

bool NorFlash::busy() {
  if (wip_ && (pollsLeft_ == 0 || now_us() >= busyUntilUs_)) wip_ = false;
  return wip_;
}

uint8_t NorFlash::read_status() {
  uint8_t s = (uint8_t)(status | (wel ? kWel : 0) | (busy() ? kWip : 0));
  if (wip_ && pollsLeft_ > 0) --pollsLeft_;
  return s;
}

void NorFlash::program(uint32_t addr, const uint8_t *data, size_t len) {
  // Bytes past the end of the page wrap to its start; a program only clears bits.
  uint32_t page = addr & ~(kPage - 1) & (kSize - 1);
  uint32_t off = addr & (kPage - 1);
  for (size_t i = 0; i < len; ++i) {
    mem[page + off] &= data[i];
    off = (off + 1) & (kPage - 1);
  }
}

void NorFlash::erase(uint32_t addr, uint32_t size) {
  uint32_t base = addr & ~(size - 1) & (kSize - 1);
  std::memset(mem + base, 0xFF, size);
  // The image is a shared mapping of flash.bin: the erase is in the file before the kill.
  if (killAfterErase > 0 && ++erases_ == killAfterErase) std::raise(SIGKILL);
}

bool NorFlash::transfer(const uint8_t *tx, size_t txLen, uint8_t *rx, size_t rxLen, unsigned lines) {
  if (rxLen) std::memset(rx, 0xFF, rxLen);   // nobody drives the line: it floats high
  if (txLen == 0 || mem == nullptr) return false;
  const uint8_t op = tx[0];

  // While an operation runs the part answers nothing but its status registers.
  if (busy() && op != nor::kReadStatus && op != nor::kReadConfig) return false;

  switch (op) {
    case nor::kReadStatus: {
      for (size_t i = 0; i < rxLen; ++i) rx[i] = read_status();
      return false;
    }
    case nor::kReadConfig:
      if (rxLen) std::memset(rx, config, rxLen);
      return false;
    case nor::kJedecId: {
      const uint8_t id[3] = {kManufacturer, kMemType, kCapacity};
      std::memcpy(rx, id, rxLen < 3 ? rxLen : 3);
      return false;
    }
    case nor::kWriteEnable:
      wel = true;
      return false;
    case nor::kWriteDisable:
      wel = false;
      return false;
    case nor::kWriteStatus:
      if (!wel || txLen < 2) return false;
      wel = false;
      status = tx[1] & (uint8_t)~(kWip | kWel);
      if (txLen >= 3) config = tx[2];
      start_busy();
      return false;
    case nor::kPageProgram: case nor::kQuadPageProgram: case nor::kQuadPageProgramMx:
      if (!wel || txLen < 4) return false;
      wel = false;
      if (is_protected()) return false;
      program(addr24(tx), tx + 4, txLen - 4);
      start_busy();
      return false;
    case nor::kSectorErase: case nor::kBlockErase:
      if (!wel || txLen < 4) return false;
      wel = false;
      if (is_protected()) return false;
      erase(addr24(tx), op == nor::kSectorErase ? kSector : kBlock);
      start_busy();
      return false;
    case nor::kChipErase: case nor::kChipEraseAlt:
      if (!wel) return false;
      wel = false;
      if (is_protected()) return false;
      erase(0, kSize);
      start_busy();
      return false;
    default:
      break;
  }

  unsigned want = read_lines(op);
  if (want == 0 || txLen < 4) return false;
  uint32_t a = addr24(tx) & (kSize - 1);
  for (size_t i = 0; i < rxLen; ++i) rx[i] = mem[(a + i) & (kSize - 1)];
  // A multi-line read on the wrong number of lines, or a quad read while the part's
  // IO2/IO3 still act as write-protect and hold, returns nonsense.
  if (want != lines || (want == 4 && !(config & kQe))) nor_scramble(rx, rxLen);
  return true;
}

}  // namespace sim
