// The simulated HX5200: register accesses go through the modelled units in a fixed order and
// fall back to plain storage; the MDIO bus behind the adapter's SMI side; the write-width notice.
#include <array>

#include "sim/sim_board.h"
#include "sim/sim_chip.h"

namespace sim {
namespace {

// Order matters: the core owns the global window and must see every access first.
constexpr std::array<const Unit *, 5> kUnits = {&unit_core, &unit_phy, &unit_mib, &unit_vlan, &unit_spic};

// The one pending width announcement: a byte or half-word write about to be made.
struct WidthNotice {
  uint32_t addr24 = 0;
  uint32_t width = 4;
  bool pending = false;
};
WidthNotice g_width;

// Registers of the chip's own MDIO address (the SMI indirect scheme).
constexpr uint8_t kMdioDataLo = 0, kMdioDataHi = 2, kMdioAddrLo = 4, kMdioCmd = 6;
constexpr uint16_t kMdioBusy = 0x8000, kMdioWrite = 0x0100;
int32_t g_smiBusyLeft = 0;   // reads of register 6 that still show busy after a command

uint16_t chip_mdio_get(uint8_t reg) { return (uint16_t)store_get(key(kSpaceChipMdio, reg)); }
void chip_mdio_set(uint8_t reg, uint16_t v) { store_set(key(kSpaceChipMdio, reg), v); }

void chip_mdio_command(uint16_t cmd) {
  uint32_t addr = chip_decode((uint32_t)(cmd & 0xFF) << 16 | chip_mdio_get(kMdioAddrLo));
  if (cmd & kMdioWrite) {
    chip_write(addr, (uint32_t)chip_mdio_get(kMdioDataHi) << 16 | chip_mdio_get(kMdioDataLo));
  } else {
    uint32_t v = chip_read(addr);
    chip_mdio_set(kMdioDataLo, (uint16_t)v);
    chip_mdio_set(kMdioDataHi, (uint16_t)(v >> 16));
  }
  long busy = knob("SMI_BUSY", 0);
  g_smiBusyLeft = busy < 0 ? -1 : (int32_t)(busy > 1000000 ? 1000000 : busy);
  chip_mdio_set(kMdioCmd, (uint16_t)(cmd & ~kMdioBusy));
}

}  // namespace

uint32_t chip_read(uint32_t addr) {
  uint32_t v = 0;
  for (const Unit *u : kUnits)
    if (u->read && u->read(addr, v)) return v;
  return store_get(addr);
}

void chip_write(uint32_t addr, uint32_t value) {
  for (const Unit *u : kUnits)
    if (u->write && u->write(addr, value)) return;
  store_set(addr, value);
}

void chip_reset(void) {
  g_width = WidthNotice{};
  g_smiBusyLeft = 0;
  core_volatile_reset();
  for (const Unit *u : kUnits)
    if (u->reset) u->reset();
}

void width_notice(uint32_t addr, uint32_t width) {
  g_width.addr24 = addr & 0xFFFFFF;
  g_width.width = (width == 1 || width == 2) ? width : 4;
  g_width.pending = true;
}

uint32_t take_write_width(uint32_t addr) {
  if (!g_width.pending || g_width.addr24 != (addr & 0xFFFFFF)) return 0;
  g_width.pending = false;
  return g_width.width;
}

// The adapter drives 5-bit PHY and register numbers onto the MDIO wire.
uint16_t mdio_read(uint8_t phy, uint8_t reg) {
  phy &= 31;
  reg &= 31;
  if (phy < 8) return (uint16_t)store_get(key(kSpaceMdio, phy * 32u + reg));
  if (phy != kChipMdioAddr) return 0xFFFF;   // nobody answers: the line floats high
  uint16_t v = chip_mdio_get(reg);
  if (reg == kMdioCmd && g_smiBusyLeft != 0) {
    if (g_smiBusyLeft > 0) --g_smiBusyLeft;
    v |= kMdioBusy;
  }
  return v;
}

void mdio_write(uint8_t phy, uint8_t reg, uint16_t value) {
  phy &= 31;
  reg &= 31;
  if (phy < 8) {
    store_set(key(kSpaceMdio, phy * 32u + reg), value);
    return;
  }
  if (phy != kChipMdioAddr) return;
  if (reg == kMdioCmd && (value & kMdioBusy)) {
    chip_mdio_command(value);
    return;
  }
  chip_mdio_set(reg, value);
}

}  // namespace sim
