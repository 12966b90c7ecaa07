// MIB unit of the simulated chip: the counter blocks are plain storage (so `reg set` can
// preset them); the reset bits clear their block and read back 0 at once. It also holds the
// link words of the ports in the PHY OCP space (OCP address a = chip address 2a): up after
// reset, writable to take a link down, and forced down by the knob KIVTOOL_SIM_LINKDOWN
// (a port mask).
#include <cstdint>

#include "sim/sim_chip.h"

namespace sim {
namespace {

constexpr uint32_t kGlobalReset = 0x4A620004u;   // bit 16: clear the system counters
constexpr uint32_t kGlobalResetBit = 1u << 16;
constexpr uint32_t kAggReset = 0x4A620020u;      // bit 0: clear the aggregation counters
constexpr uint32_t kLagBase = 0x4A620064u;
constexpr uint32_t kSysBase = 0x4A620264u;       // the aggregation block ends here
constexpr uint32_t kSysCounters = 49;
constexpr uint32_t kPortBase = 0x4AE20000u;
constexpr uint32_t kPortStride = 0x800u;
constexpr uint32_t kPortCounters = 91;
constexpr uint32_t kPortCtrl = 0x4AE20184u;      // + p * 0x800; bit 0: clear the port's counters
constexpr uint32_t kPorts = 16;

// Link words: OCP address (p + 1) * 0x10000 + 0xA402, bit 2 link up.
constexpr uint32_t kLinkOcpBase = 0x10000u;
constexpr uint32_t kLinkOcpOffset = 0xA402u;
constexpr uint32_t kLinkUp = 1u << 2;
constexpr uint32_t kSpace = 0x4D49u;             // link words, stored as the difference from reset

void clearWords(uint32_t base, uint32_t count) {
  for (uint32_t i = 0; i < count; ++i)
    if (store_get(base + 4 * i) != 0) store_set(base + 4 * i, 0);
}

// Port whose link word sits at `addr`, or -1.
int linkPort(uint32_t addr) {
  if ((addr >> 24) != 0x4A) return -1;
  const uint32_t a24 = addr & 0xFFFFFFu;
  if (a24 & 1u) return -1;
  const uint32_t ocp = a24 / 2;
  if (ocp < kLinkOcpBase || (ocp & 0xFFFFu) != kLinkOcpOffset) return -1;
  const uint32_t port = ocp / kLinkOcpBase - 1;
  return port < kPorts ? static_cast<int>(port) : -1;
}

bool mibRead(uint32_t addr, uint32_t &value) {
  const int port = linkPort(addr);
  if (port < 0) return false;
  value = store_get((uint64_t)kSpace << 32 | (uint32_t)port) ^ kLinkUp;
  if (knob("LINKDOWN", 0) & (1L << port)) value &= ~kLinkUp;
  return true;
}

bool mibWrite(uint32_t addr, uint32_t value) {
  if (const int port = linkPort(addr); port >= 0) {
    store_set((uint64_t)kSpace << 32 | (uint32_t)port, value ^ kLinkUp);
    return true;
  }
  if (addr == kGlobalReset) {
    if (value & kGlobalResetBit) clearWords(kSysBase, kSysCounters);
    store_set(addr, value & ~kGlobalResetBit);
    return true;
  }
  if (addr == kAggReset) {
    if (value & 1u) clearWords(kLagBase, (kSysBase - kLagBase) / 4);
    store_set(addr, value & ~1u);
    return true;
  }
  if (addr >= kPortCtrl && (addr - kPortCtrl) % kPortStride == 0 && (addr - kPortCtrl) / kPortStride < kPorts) {
    const uint32_t port = (addr - kPortCtrl) / kPortStride;
    if (value & 1u) clearWords(kPortBase + port * kPortStride, kPortCounters);
    store_set(addr, value & ~1u);
    return true;
  }
  return false;
}

}  // namespace

const Unit unit_mib = {"mib", nullptr, mibRead, mibWrite};
}  // namespace sim
