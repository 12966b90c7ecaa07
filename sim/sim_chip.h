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
extern const Unit unit_core;   // generation register, indirect access, boot strap, arbitration
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

// Access width announced by the tool for the next write (1, 2 or 4), consumed by it.
uint32_t take_write_width(uint32_t addr);

// MDIO bus as the adapter's SMI side sees it.
uint16_t mdio_read(uint8_t phy, uint8_t reg);
void mdio_write(uint8_t phy, uint8_t reg, uint16_t value);

// Directory of the board's state, and a numeric knob from the environment
// (KIVTOOL_SIM_<NAME>), for time-out and fault tests.
const char *state_dir(void);
long knob(const char *name, long dflt);

}  // namespace sim
