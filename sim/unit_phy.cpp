// PHY unit of the simulated chip: the PHY access unit (command word 0x4A18004C and
// auxiliary word 0x4A180050) in front of the internal PHYs and the devices of the MDC/MDIO
// channel, the external-PHY (MDX) controller with its 32 PHYs and pin control, and the
// firmware and chip version registers. State lives in the board's store.
#include <array>
#include <cstdint>

#include "sim/sim_chip.h"

namespace sim {
namespace {

// ---- registers (decoded chip addresses) ---------------------------------------------------
// The board keeps its own copy of these addresses on purpose: sharing the tool's header
// would let a wrong address in the tool pass its tests against the board.
constexpr uint32_t kPhyCmd = 0x4A18004Cu;
constexpr uint32_t kPhyAux = 0x4A180050u;
constexpr uint32_t kMdxPhyId = 0x4A450044u;
constexpr uint32_t kMdxCmd = 0x4A450048u;
constexpr uint32_t kMdxPinCtl = 0x4A640008u;
constexpr uint32_t kFwVersion = 0x4A1F0100u;
constexpr uint32_t kChipVersion = 0x4A1F0104u;

constexpr uint32_t kMdxPinCtlReset = 0x10u;    // bit 4: pins not lent to the MDX controller
constexpr uint32_t kMdxPinBit = 0x10u;
constexpr uint16_t kNoAnswer = 0xFFFFu;        // an MDIO read nobody answers
constexpr long kBusyCap = 1000000;

// ---- store layout: one private space, the kind of entry in the top byte of the index ---
constexpr uint32_t kSpace = 0x5048u;
enum Kind : uint32_t { kRegs = 1, kMmd = 2, kExt = 3, kMdxRegs = 4, kLatch = 5 };
constexpr uint64_t skey(Kind kind, uint32_t index) {
  return (uint64_t)kSpace << 32 | (uint64_t)kind << 24 | (index & 0xFFFFFFu);
}
// 16-bit registers are stored with bit 16 set once written; unwritten ones show their
// reset value.
constexpr uint32_t kWritten = 0x10000u;

uint16_t reg16_get(uint64_t k, uint16_t resetValue) {
  uint32_t v = store_get(k);
  return (v & kWritten) ? (uint16_t)v : resetValue;
}
void reg16_set(uint64_t k, uint16_t value) { store_set(k, kWritten | value); }

// ---- devices on the PHY access unit --------------------------------------------------------
// Addresses 0..7 are the internal PHYs (4 is the gigabit PHY with extension pages); on
// the MDC/MDIO channel only the T18 at address 11 answers besides them.
constexpr uint32_t kGphy = 4;
constexpr uint32_t kT18 = 11;
constexpr uint16_t kExtMode = 7;       // register 31 value that opens the extension pages
constexpr uint32_t kExtPage = 31;      // page through which the extension pages are reached
constexpr uint32_t kExtPageSel = 30;   // register of page 31 that selects the extension page
constexpr uint32_t kPageSelReg = 31;   // one register on every page

bool present(uint32_t dev) { return dev < 8 || dev == kT18; }

// Reset values of page 0: control, status and identifier registers.
uint16_t phy_reset_value(uint32_t dev, uint32_t page, uint32_t reg) {
  if (page != 0) return 0;
  switch (reg) {
    case 0: return dev == kGphy ? 0x1140 : 0x2100;
    case 1: return dev == kGphy ? 0x7949 : 0x0145;
    case 2: return 0x001C;
    case 3: return (uint16_t)(dev == kT18 ? 0xC980 : 0xC800 | dev);
    default: return 0;
  }
}

uint64_t page_key(uint32_t dev, uint32_t page, uint32_t reg) {
  if (reg == kPageSelReg) page = 0;
  return skey(kRegs, dev << 10 | page << 5 | reg);
}

bool ext_mode(uint32_t dev) { return dev == kGphy && reg16_get(page_key(dev, 0, kPageSelReg), 0) == kExtMode; }

// The register an access reaches: extension page storage while the gigabit PHY is in
// extension mode and the access is on page 31 (other than the page selectors).
uint64_t target_key(uint32_t dev, uint32_t page, uint32_t reg, uint16_t &resetValue) {
  resetValue = phy_reset_value(dev, page, reg);
  if (page == kExtPage && reg != kExtPageSel && reg != kPageSelReg && ext_mode(dev)) {
    uint32_t extPage = reg16_get(page_key(dev, kExtPage, kExtPageSel), 0);
    resetValue = 0;
    return skey(kExt, extPage << 5 | reg);
  }
  return page_key(dev, page, reg);
}

uint16_t paged_read(uint32_t dev, uint32_t page, uint32_t reg) {
  if (!present(dev)) return kNoAnswer;
  uint16_t resetValue = 0;
  uint64_t k = target_key(dev, page, reg, resetValue);
  return reg16_get(k, resetValue);
}

void paged_write(uint32_t dev, uint32_t page, uint32_t reg, uint16_t value) {
  if (!present(dev)) return;
  uint16_t resetValue = 0;
  reg16_set(target_key(dev, page, reg, resetValue), value);
}

uint64_t mmd_key(uint32_t phy, uint32_t devad, uint32_t addr) { return skey(kMmd, phy << 21 | devad << 16 | addr); }

// ---- PHY access unit ----------------------------------------------------------------------
long g_phyBusyLeft = 0;   // reads of the command word that still show the start bit
bool g_auxFresh = false;  // the auxiliary word was written since the last start

long busy_knob(const char *name) {
  long busy = knob(name, 0);
  if (busy < 0) return -1;
  return busy > kBusyCap ? kBusyCap : busy;
}

void phy_start(uint32_t cmd) {
  const bool read = cmd & 0x2u;
  const bool mmd = cmd & 0x4u;
  const uint32_t page = cmd >> 3 & 0x1Fu;
  const uint32_t reg = cmd >> 8 & 0x1Fu;
  const uint32_t phy = cmd >> 13 & 0x7u;
  uint16_t data = (uint16_t)(cmd >> 16);
  const uint32_t aux = store_get(kPhyAux);
  if (mmd) {
    // Clause 45: device in the register field, address in the auxiliary word.
    const uint64_t k = mmd_key(phy, reg, aux & 0xFFFFu);
    if (read) data = reg16_get(k, 0);
    else reg16_set(k, data);
  } else {
    // A start that follows a write of the auxiliary word is a channel access to the
    // device named in its bits 16..19; otherwise the internal PHY of the command word.
    const uint32_t dev = g_auxFresh ? (aux >> 16 & 0xFu) : phy;
    if (read) data = paged_read(dev, page, reg);
    else paged_write(dev, page, reg, data);
  }
  g_auxFresh = false;
  store_set(kPhyCmd, (uint32_t)data << 16 | (cmd & 0xFFFEu));
  g_phyBusyLeft = busy_knob("PHY_BUSY");
}

// ---- MDX controller ------------------------------------------------------------------------
long g_mdxBusyLeft = 0;

uint32_t pin_ctl() { return store_get(skey(kLatch, 0)) ^ kMdxPinCtlReset; }

void mdx_start(uint32_t cmd) {
  const uint32_t op = cmd & 0xFFu;
  uint16_t data = (uint16_t)(cmd >> 16);
  if (op == 0xFB || op == 0xF9) {
    const uint32_t phy = store_get(kMdxPhyId) & 0x1Fu;
    const uint32_t reg = cmd >> 8 & 0x1Fu;
    const bool routed = (pin_ctl() & kMdxPinBit) == 0;   // pins lent to the controller
    const uint64_t k = skey(kMdxRegs, phy << 5 | reg);
    const uint16_t resetValue = reg == 2 ? 0x0180 : reg == 3 ? (uint16_t)(0xDC90 | phy) : 0;
    if (op == 0xFB) data = routed ? reg16_get(k, resetValue) : kNoAnswer;
    else if (routed) reg16_set(k, data);
  }
  store_set(kMdxCmd, (uint32_t)data << 16 | (cmd & 0xFFFEu));
  g_mdxBusyLeft = busy_knob("MDX_BUSY");
}

// Shows the start bit while the unit is still busy.
uint32_t with_busy(uint32_t word, long &busyLeft) {
  if (busyLeft == 0) return word;
  if (busyLeft > 0) --busyLeft;
  return word | 1u;
}

bool phy_read(uint32_t addr, uint32_t &value) {
  switch (addr) {
    case kPhyCmd: value = with_busy(store_get(kPhyCmd), g_phyBusyLeft); return true;
    case kMdxCmd: value = with_busy(store_get(kMdxCmd), g_mdxBusyLeft); return true;
    case kMdxPinCtl: value = pin_ctl(); return true;
    case kFwVersion: value = (uint32_t)knob("FW_VERSION", 0x01020300); return true;
    case kChipVersion: value = (uint32_t)knob("CHIP_VERSION", 4); return true;
    default: return false;
  }
}

bool phy_write(uint32_t addr, uint32_t value) {
  switch (addr) {
    case kPhyCmd:
      if (value & 1u) phy_start(value);
      else store_set(kPhyCmd, value);
      return true;
    case kPhyAux:
      store_set(kPhyAux, value);
      g_auxFresh = true;
      return true;
    case kMdxCmd:
      if (value & 1u) mdx_start(value);
      else store_set(kMdxCmd, value);
      return true;
    case kMdxPinCtl: store_set(skey(kLatch, 0), value ^ kMdxPinCtlReset); return true;
    case kFwVersion:
    case kChipVersion: return true;   // read-only
    default: return false;
  }
}

void phy_reset() {
  g_phyBusyLeft = 0;
  g_mdxBusyLeft = 0;
  g_auxFresh = false;
}

}  // namespace

const Unit unit_phy = {"phy", phy_reset, phy_read, phy_write};

}  // namespace sim
