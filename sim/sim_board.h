// Internals shared by the pieces of the simulated board (bus, adapter, chip, store).
#pragma once

#include <cstddef>
#include <cstdint>

namespace sim {

// ---- persistent register store (sim_store.cpp) ---------------------------------------
// Opens (or creates) <dir>/regs.bin; false when the directory cannot be used.
bool store_open(const char *dir);
void store_close(void);
// Number of keys held (diagnostics and tests).
size_t store_count(void);

// Private key spaces of the board core (other units choose their own, below these).
constexpr uint32_t kSpaceMdio = 0xB0A0;      // MDIO devices 0-7: index phy * 32 + reg
constexpr uint32_t kSpaceChipMdio = 0xB0A1;  // the chip's own MDIO registers (address 24)
constexpr uint32_t kSpaceCore = 0xB0A2;      // core latches (page register, ...)
constexpr uint64_t key(uint32_t space, uint32_t index) { return (uint64_t)space << 32 | index; }

// ---- chip (sim_chip.cpp, unit_core.cpp) ----------------------------------------------
constexpr uint32_t kChipMdioAddr = 24;     // the chip's MDIO address
constexpr uint16_t kI2cDevAddr = 0xA8;     // the chip's I2C device address (write form)
constexpr uint8_t kPageReset = 0x4A;       // page register after reset
// Current page (bits 24-31 of a decoded address).
uint8_t chip_page(void);
// Decode a 24-bit transport address with the current page.
inline uint32_t chip_decode(uint32_t addr24) { return (uint32_t)chip_page() << 24 | (addr24 & 0xFFFFFF); }
// Run every unit's reset hook (after the store is loaded) and clear volatile chip state.
void chip_reset(void);
// The tool's width notice (installed with reg_width_notice_set): remembers one pending width.
void width_notice(uint32_t addr, uint32_t width);
// Volatile state of the core unit (busy counters) back to power-on.
void core_volatile_reset(void);

// ---- adapter (sim_adapter.cpp) -------------------------------------------------------
enum class Fault : uint8_t { none, nak, badstatus, nocomplete, wrongcode, unplug, datamissing };
// Parse "kind@n[,kind@n...]"; unknown entries are reported on stderr and skipped.
void faults_parse(const char *text);
void adapter_reset(void);
// Host-to-device bulk transfer on endpoint 0x02; returns bytes taken or a negative errno.
int adapter_out(const uint8_t *bytes, size_t size);
// Device-to-host: copies the next pending IN transfer; 0 when nothing is pending,
// -EOVERFLOW when the pending transfer is longer than `size`.
int adapter_in(uint8_t *bytes, size_t size);
// Number of command headers received since attach (fault counting).
uint32_t adapter_headers_seen(void);

// ---- bus (sim_bus.cpp) ---------------------------------------------------------------
const struct usb_ops_t *bus_ops(void);
void bus_reset(void);
// The adapter leaves the bus for the rest of the run.
void bus_unplug(void);
bool bus_unplugged(void);

// ---- board (sim.cpp) -----------------------------------------------------------------
bool attached(void);

}  // namespace sim
