// The simulated HX5200 chip: address decoding, plain register storage and the hooks
// through which the modelled units take part in register accesses.
#pragma once

#include <cstdint>

namespace sim {

// A modelled unit. read/write get the decoded 32-bit chip address ((page << 24) | addr24)
// and return true when the unit handled the access; unhandled accesses fall through to
// the next unit and finally to plain storage. Units keep persistent state in the store.
struct Unit {
  const char *name;
  void (*reset)(void);                       // called once after state is loaded (may be null)
  bool (*read)(uint32_t addr, uint32_t &value);
  bool (*write)(uint32_t addr, uint32_t value);
};

// Units, each defined in its own file.
extern const Unit unit_core;   // global window (page register, indirect access), generation register
extern const Unit unit_phy;    // PHY access unit, SEL_EXT_ACCESS, MDX controller, fw/chip version
extern const Unit unit_mib;    // MIB counter blocks, reset bits, OCP link words
extern const Unit unit_vlan;   // VLAN table, PVIDs, filters, retagging tables
extern const Unit unit_spic;   // SPI flash controller and the NOR flash behind it

// Persistent store: 64-bit keys. Chip registers use their 32-bit decoded address; units
// may use private key spaces (key = (uint64_t)space << 32 | index), space >= 1.
uint32_t store_get(uint64_t key);
void store_set(uint64_t key, uint32_t value);

// Register access as the adapter performs it (decoded address; goes through the units).
uint32_t chip_read(uint32_t addr);
void chip_write(uint32_t addr, uint32_t value);

// Access width announced by the tool for the next write (1, 2 or 4), consumed by it;
// 0 when nothing was announced for this address (a tool on the real-USB path announces nothing).
uint32_t take_write_width(uint32_t addr);

// MDIO bus as the adapter's SMI side sees it.
uint16_t mdio_read(uint8_t phy, uint8_t reg);
void mdio_write(uint8_t phy, uint8_t reg, uint16_t value);

// Flash-write exchanges of the adapter (0x15, 0x25, 0x45) hand their data to this sink
// (flash address, data, length, flag byte); the flash model may install one. Without a sink
// the adapter accepts the data and drops them.
using FlashSink = void (*)(uint32_t flashAddr, const uint8_t *data, uint32_t len, uint8_t flag);
void set_flash_sink(FlashSink fn);

// Functions run by sim_detach() before the board's state is closed (for units that keep
// mappings or files of their own). At most 8; registering the same function twice is a no-op.
void at_detach(void (*fn)(void));

// Directory of the board's state, and a numeric knob from the environment
// (KIVTOOL_SIM_<NAME>), for time-out and fault tests.
const char *state_dir(void);   // null while no board is attached
long knob(const char *name, long dflt);

}  // namespace sim
