// SPI flash controller (SPIC) of the simulated chip and the serial NOR flash behind it,
// plus the few registers around them: flash arbitration, clock source, configuration window.
//
// The controller collects what the tool writes to its data register (bytes or words, as
// announced through the width notice) and, when the enable register is written 1, runs one
// chip-select cycle on the flash: it sends the collected bytes and clocks in as many bytes
// as the receive count says when the control register asks for a receive phase. The status
// register then shows busy for a configurable number of reads; received bytes are read from
// the data register four at a time, lowest byte first.
//
// The flash image lives in <state dir>/flash.bin, mapped shared so that every program and
// erase is on disk at once. The flash's status and configuration registers are kept in the
// register store. Everything else (control, counts, divisor, sample delay, ...) is plain
// storage that the controller consults when a transfer starts.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <string>

#include "sim/sim_chip.h"
#include "sim/sim_norflash.h"

namespace sim {
namespace {

constexpr uint32_t kSpic = 0x51000000;
constexpr uint32_t kCtrl = kSpic + 0x00, kRxCount = kSpic + 0x04, kEnable = kSpic + 0x08;
constexpr uint32_t kDivisor = kSpic + 0x14, kStatus = kSpic + 0x28, kData = kSpic + 0x60;
constexpr uint32_t kDelay = kSpic + 0x11C;
constexpr uint32_t kArbitration = 0x4A1B000C;
constexpr uint32_t kOtherOwner = 1u << 24;    // state bit held by the other master
constexpr uint32_t kClockSource = 0x42180000;
constexpr uint32_t kCfgWindow = 0x4A1C0000;   // bit 0: flash addresses offset by 0x6000
constexpr uint32_t kCfgWindowBase = 0x6000;

// Private store keys: flash status, flash configuration, "board powered up once".
constexpr uint32_t kSpaceFlash = 0x51F0;
constexpr uint64_t fkey(uint32_t i) { return (uint64_t)kSpaceFlash << 32 | i; }
constexpr uint64_t kKeyStatus = fkey(0), kKeyConfig = fkey(1), kKeyPowered = fkey(2);

struct Spic {
  std::array<uint8_t, 1024> tx{};   // bytes queued for the next cycle (bounded)
  size_t txLen = 0;
  std::array<uint8_t, 4096> rx{};   // bytes received by the last cycle (bounded)
  size_t rxLen = 0, rxPos = 0;
  long busyLeft = 0;                // status reads that still show busy; < 0: forever

  NorFlash nor;
  uint8_t *image = nullptr;         // mapped flash.bin, or the fallback buffer
  bool mapped = false;

  // Knobs, read once per attach.
  long busyPolls = 1;
  bool ownedElsewhere = false;
  long dlyMin = 10, dlyMax = 20;
};
Spic g;

// Used when flash.bin cannot be mapped: the flash then lives for this run only.
std::array<uint8_t, NorFlash::kSize> g_fallback;

void unmap_image() {
  if (g.mapped && g.image) munmap(g.image, NorFlash::kSize);
  g.image = nullptr;
  g.mapped = false;
  g.nor.mem = nullptr;
}

// Maps <state dir>/flash.bin (4 MiB, erased when new or short) on first use.
uint8_t *image() {
  if (g.image) return g.image;
  const char *dir = state_dir();
  if (dir) {
    std::string path = std::string(dir) + "/flash.bin";
    int fd = ::open(path.c_str(), O_RDWR | O_CREAT, 0644);
    if (fd >= 0) {
      struct stat st{};
      off_t have = fstat(fd, &st) == 0 ? st.st_size : 0;
      bool ok = true;
      if (have < (off_t)NorFlash::kSize) {
        // Extend with erased bytes, never zeros.
        std::array<uint8_t, 65536> ff;
        ff.fill(0xFF);
        off_t pos = have;
        while (ok && pos < (off_t)NorFlash::kSize) {
          size_t n = (size_t)std::min<off_t>((off_t)ff.size(), (off_t)NorFlash::kSize - pos);
          ok = pwrite(fd, ff.data(), n, pos) == (ssize_t)n;
          pos += (off_t)n;
        }
      }
      if (ok) {
        void *p = mmap(nullptr, NorFlash::kSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (p != MAP_FAILED) {
          g.image = static_cast<uint8_t *>(p);
          g.mapped = true;
        }
      }
      ::close(fd);
    }
    if (!g.image) std::fprintf(stderr, "kivtool: simulated board: cannot map %s; flash kept in memory\n", path.c_str());
  }
  if (!g.image) {
    g_fallback.fill(0xFF);
    g.image = g_fallback.data();
  }
  g.nor.mem = g.image;
  return g.image;
}

bool addressed(uint8_t op) {
  switch (op) {
    case nor::kPageProgram: case nor::kQuadPageProgram: case nor::kQuadPageProgramMx:
    case nor::kSectorErase: case nor::kBlockErase:
    case nor::kRead: case nor::kFastRead: case nor::kDualRead: case nor::kQuadRead:
    case nor::kDualIoRead: case nor::kQuadIoRead:
      return true;
    default:
      return false;
  }
}

unsigned control_lines(uint32_t ctrl) {
  if (ctrl & 0x80000) return 4;
  if (ctrl & 0x40000) return 2;
  return 1;
}

// One chip-select cycle with what the tool has set up.
void run_cycle() {
  image();
  const uint32_t ctrl = store_get(kCtrl);
  const bool receive = (ctrl & 0x300) == 0x300;
  size_t want = receive ? store_get(kRxCount) : 0;
  if (want > g.rx.size()) want = g.rx.size();

  if (g.txLen >= 4 && addressed(g.tx[0]) && (store_get(kCfgWindow) & 1)) {
    uint32_t a = ((uint32_t)g.tx[1] << 16 | (uint32_t)g.tx[2] << 8 | g.tx[3]) + kCfgWindowBase;
    g.tx[1] = (uint8_t)(a >> 16);
    g.tx[2] = (uint8_t)(a >> 8);
    g.tx[3] = (uint8_t)a;
  }

  const uint8_t oldStatus = g.nor.status, oldConfig = g.nor.config;
  bool dataRead = g.nor.transfer(g.tx.data(), g.txLen, g.rx.data(), want, control_lines(ctrl));
  if (dataRead) {
    long delay = (long)(store_get(kDelay) & 0xFFFF);
    if (delay < g.dlyMin || delay > g.dlyMax) nor_scramble(g.rx.data(), want);
  }
  if (g.nor.status != oldStatus) store_set(kKeyStatus, g.nor.status);
  if (g.nor.config != oldConfig) store_set(kKeyConfig, g.nor.config);

  g.rxLen = want;
  g.rxPos = 0;
  g.txLen = 0;
  g.busyLeft = g.busyPolls;
}

void push_data(uint32_t value, uint32_t width) {
  for (uint32_t i = 0; i < width && g.txLen < g.tx.size(); ++i) g.tx[g.txLen++] = (uint8_t)(value >> (8 * i));
}

bool program_opcode(uint8_t op) {
  return op == nor::kPageProgram || op == nor::kQuadPageProgram || op == nor::kQuadPageProgramMx;
}

// Width of a data-register write nobody announced (a tool reaching the board through real
// USB has no listener for the notice). The tool sends the first byte of a transaction as a
// whole word exactly when it is an addressed opcode (opcode and 24-bit address in one word),
// page data as words, and everything else (opcode-only commands, status bytes, the dummy
// byte of a fast read) as single bytes. A page program's 1-3 tail bytes cannot be told from
// data words and are taken as words.
uint32_t unannounced_width(uint32_t value) {
  if (g.txLen == 0) return addressed((uint8_t)value) ? 4 : 1;
  return program_opcode(g.tx[0]) ? 4 : 1;
}

uint32_t pop_word() {
  uint32_t v = 0;
  for (uint32_t i = 0; i < 4; ++i) {
    uint8_t b = g.rxPos < g.rxLen ? g.rx[g.rxPos++] : 0;
    v |= (uint32_t)b << (8 * i);
  }
  return v;
}

void spic_reset() {
  unmap_image();
  g.txLen = g.rxLen = g.rxPos = 0;
  g.busyLeft = 0;
  g.busyPolls = knob("SPIC_BUSY", 1);
  g.ownedElsewhere = knob("FLASH_OWNED", 0) != 0;
  g.dlyMin = knob("FLASH_DLY_MIN", 10);
  g.dlyMax = knob("FLASH_DLY_MAX", 20);
  g.nor = NorFlash{};
  g.nor.busyPolls = knob("FLASH_WIP", 1);
  g.nor.busyMs = knob("FLASH_WIP_MS", 20);
  g.nor.killAfterErase = knob("FLASH_KILL_ERASE", 0);
  g.nor.status = (uint8_t)store_get(kKeyStatus);
  g.nor.config = (uint8_t)store_get(kKeyConfig);
  // Power-on values of the board, set once for a new state directory.
  if (store_get(kKeyPowered) == 0) {
    store_set(kDivisor, 8);
    store_set(kClockSource, (store_get(kClockSource) & ~3u) | 1);
    store_set(kKeyPowered, 1);
  }
  at_detach(unmap_image);
}

bool spic_read(uint32_t addr, uint32_t &value) {
  switch (addr) {
    case kStatus:
      value = store_get(kStatus) & ~1u;
      if (g.busyLeft != 0) {
        value |= 1;
        if (g.busyLeft > 0) --g.busyLeft;
      }
      return true;
    case kData:
      value = pop_word();
      return true;
    case kArbitration:
      value = (store_get(kArbitration) & ~kOtherOwner) | (g.ownedElsewhere ? kOtherOwner : 0);
      return true;
    default:
      return false;
  }
}

bool spic_write(uint32_t addr, uint32_t value) {
  switch (addr) {
    case kData:
      if (const uint32_t width = take_write_width(addr)) push_data(value, width);
      else push_data(value, unannounced_width(value));
      return true;
    case kEnable:
      store_set(kEnable, value);
      if (value & 1) run_cycle();
      return true;
    case kArbitration:
      // Bit 24 belongs to the other master: what the tool writes back there is not kept.
      store_set(kArbitration, value & ~kOtherOwner);
      return true;
    default:
      return false;
  }
}

}  // namespace

const Unit unit_spic = {"spic", spic_reset, spic_read, spic_write};

}  // namespace sim
