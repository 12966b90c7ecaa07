// Core unit of the simulated chip: the global window 0xFFFF00-0xFFFFFF (page register,
// indirect access control and data) and the chip generation register.
#include "sim/sim_board.h"
#include "sim/sim_chip.h"

namespace sim {
namespace {

constexpr uint32_t kWindowMask = 0xFFFF00;
constexpr uint32_t kPageReg = 0xFFFF01;
constexpr uint32_t kIndCtl = 0xFFFF11;
constexpr uint32_t kIndData = 0xFFFF15;
constexpr uint32_t kGeneration = 0x00103FF0;   // decoded: page 0 (AXI)
constexpr uint32_t kIndRead = 0x3D, kIndWrite = 0x3F;
constexpr uint32_t kIndDone = 0x80000000u;

int32_t g_indBusyLeft = 0;   // reads of the control register that still show "not done"
bool g_inIndirect = false;   // an indirect access in progress (no nesting through the window)

bool is_indirect_op(uint32_t ctl) {
  uint32_t op = ctl >> 24 & 0x7F;
  return op == kIndRead || op == kIndWrite;
}

// Window registers are global: they are stored under their 24-bit address whatever the page.
bool core_read(uint32_t addr, uint32_t &value) {
  uint32_t a24 = addr & 0xFFFFFF;
  if ((a24 & kWindowMask) == kWindowMask) {
    if (a24 == kPageReg) {
      value = chip_page();
    } else if (a24 == kIndCtl) {
      value = store_get(kIndCtl);
      if (is_indirect_op(value)) {
        if (g_indBusyLeft == 0) value |= kIndDone;
        else if (g_indBusyLeft > 0) --g_indBusyLeft;
      }
    } else {
      value = store_get(a24);
    }
    return true;
  }
  if (addr == kGeneration) {
    long gen = knob("CHIP_GEN", 4);
    value = (uint32_t)(gen & 0xF) << 28;
    return true;
  }
  return false;
}

// The indirect engine reaches (page << 24) | target, the same decoding as a direct access.
void start_indirect(uint32_t ctl) {
  uint32_t target = chip_decode(ctl & 0xFFFFFF);
  g_inIndirect = true;
  if ((ctl >> 24 & 0x7F) == kIndWrite) chip_write(target, store_get(kIndData));
  else store_set(kIndData, chip_read(target));
  g_inIndirect = false;
  long busy = knob("INDIRECT_BUSY", 0);
  g_indBusyLeft = busy < 0 ? -1 : (int32_t)(busy > 1000000 ? 1000000 : busy);
}

bool core_write(uint32_t addr, uint32_t value) {
  uint32_t a24 = addr & 0xFFFFFF;
  if ((a24 & kWindowMask) == kWindowMask) {
    if (a24 == kPageReg) {
      // Kept as the difference from the reset value so a fresh store reads 0x4A.
      store_set(key(kSpaceCore, 0), (value & 0xFF) ^ kPageReset);
    } else if (a24 == kIndCtl) {
      store_set(kIndCtl, value & ~kIndDone);
      if (is_indirect_op(value) && !g_inIndirect) start_indirect(value);
    } else {
      store_set(a24, value);
    }
    return true;
  }
  return addr == kGeneration;   // read-only
}

}  // namespace

uint8_t chip_page(void) { return (uint8_t)(store_get(key(kSpaceCore, 0)) ^ kPageReset); }

void core_volatile_reset(void) {
  g_indBusyLeft = 0;
  g_inIndirect = false;
}

const Unit unit_core = {"core", nullptr, core_read, core_write};

}  // namespace sim
