// Flash access layer: the serial NOR flash behind the HX5200's SPI flash controller (SPIC),
// reached through the SPIC registers on page 0x51 with the register primitives.
// All operations except the arbitration, the controller initialisation and the clock
// read-back assume that the SPIC page is selected.
#pragma once

#include <cstddef>
#include <cstdint>

#include "internal/common/spi_nor.h"

// ---- registers -----------------------------------------------------------------------
#define SPIC_BASE 0x51000000u
#define SPIC_CTRL (SPIC_BASE + 0x00u)     // control: receive phase, data lines
#define SPIC_RXCNT (SPIC_BASE + 0x04u)    // bytes to receive (1 for transmit only)
#define SPIC_ENABLE (SPIC_BASE + 0x08u)   // 1 starts a transaction, 0 before a set-up
#define SPIC_CS (SPIC_BASE + 0x10u)       // chip select
#define SPIC_DIV (SPIC_BASE + 0x14u)      // clock divisor
#define SPIC_STATUS (SPIC_BASE + 0x28u)   // bit 0: busy
#define SPIC_DATA (SPIC_BASE + 0x60u)     // data: byte or word writes, word reads
#define SPIC_DIV2 (SPIC_BASE + 0x114u)    // second copy of the divisor
#define SPIC_FORMAT (SPIC_BASE + 0x118u)  // transfer format
#define SPIC_DELAY (SPIC_BASE + 0x11Cu)   // sample delay

#define SPIF_ARBITRATION 0x4A1B000Cu     // bits 24..25 owner state; bit 25 our request
#define SPIF_BOOT_STRAP 0x4A1B0078u
#define SPIF_PARAM_SELECT 0x4A1F0008u
#define SPIF_CLOCK_SOURCE 0x42180000u    // bits 0..1
#define SPIF_CPU_SAMPLE 0x42100030u
#define SPIF_CFG_WINDOW 0x4A1C0000u      // 1: flash addresses land in the configuration area

#define SPIF_PROTECT_MASK nor::kStatusProtect   // status bits 2-5 and 7
#define SPIF_CAL_ADDR 0x40010u           // where the calibration pattern lives

// Flash kinds for spi_flash_erase.
#define SPIF_ERASE_CHIP 0u
#define SPIF_ERASE_SECTOR 1u
#define SPIF_ERASE_BLOCK 2u

// ---- settings (process-wide) ---------------------------------------------------------
struct spi_flash_cfg_t {
  uint32_t channel;       // data lines in effect: 1, 2 or 4
  uint32_t reqChannel;    // asked for by `setch`, applied with the requested settings
  uint32_t reqClock;      // MHz asked for by `setspd`
  uint32_t clock;         // MHz measured by the controller initialisation
  uint32_t divisor;       // SPIC clock divisor
  uint32_t dummyCycles;   // dummy clocks of the read opcode
  uint32_t furtherMode;   // 1: 4-line mode by configuration bit 1, 0: by status bit 6
  uint32_t sysDelay;      // sample delay written to SPIC_DELAY
  uint32_t pollLimit;     // busy polls before giving up
  uint8_t pgOpcode;       // page program
  uint8_t rdOpcode;       // read data
  uint8_t rdcrOpcode;     // read configuration
  uint8_t dummyByte;      // sent after the read address when dummy cycles are configured
  uint8_t quadFlag1;      // first 4-line mode flag (used by program)
  uint8_t quadFlag2;      // second 4-line mode flag (used by read)
  uint8_t skipWip;        // 1: no flash status reads around operations
};
extern spi_flash_cfg_t spi_flash_cfg;
// Back to the values a fresh process starts with.
void spi_flash_cfg_reset(void);

// ---- arbitration and page ------------------------------------------------------------
// Up to 65536 attempts to own the flash; 0 when granted, -11 when not, or the failing
// read's code.
int32_t spi_flash_acquire(void);
// Drops our request bit if it is set; the result of that access.
int32_t spi_flash_release(void);
int32_t spi_flash_page(uint32_t page);

// ---- controller ----------------------------------------------------------------------
int32_t spi_flash_controller_init(void);
// Divisor and clock source read back: the SPIC clock in MHz (page restored afterwards).
int32_t spi_flash_get_clock(uint32_t *mhz);
// Clock source and divisor for a clock in MHz (100, 75, 50, 33, 12); false for others.
bool spi_flash_clock_pair(uint32_t mhz, uint32_t *source, uint32_t *divisor);
// Applies the requested clock and channel (see spi_flash_cfg_t).
int32_t spi_flash_apply_settings(void);
// Finds a working sample delay (programming the calibration pattern when it is missing).
int32_t spi_flash_calibrate(void);

// ---- flash operations ----------------------------------------------------------------
int32_t spi_flash_wait_idle(void);   // -11 at the poll limit
int32_t spi_flash_wait_wip(void);    // 11 at the poll limit
int32_t spi_flash_read_status(uint8_t *status);
int32_t spi_flash_read_config(uint8_t *config);
int32_t spi_flash_read_id(uint32_t *id);   // bytes: manufacturer, device ID 0, device ID 1
// Size of the flash in bytes from the capacity byte of its identification (2^n bytes, as
// JEDEC parts report it); a code outside 64 KiB..16 MiB gives the whole 24-bit space.
int32_t spi_flash_capacity(uint32_t *bytes);
int32_t spi_flash_write_status(uint8_t status, uint8_t config, bool twoBytes);
int32_t spi_flash_write_enable(void);    // 1 when the flash never gets ready or never latches
int32_t spi_flash_write_disable(void);
int32_t spi_flash_clear_protect(void);
int32_t spi_flash_read(uint32_t addr, uint8_t *buf, uint32_t len);
// One read set-up, then the pieces `next` asks for, each read as one chunk of the read
// above: `next` is called before every piece (and sees the bytes of the ones before) and
// gives its flash address, destination and length (1..256), or false to stop.
typedef bool (*spi_flash_piece_fn)(void *ctx, uint32_t *addr, uint8_t **buf, uint32_t *len);
int32_t spi_flash_read_pieces(spi_flash_piece_fn next, void *ctx);
int32_t spi_flash_program(uint32_t addr, const uint8_t *data, uint32_t len);
int32_t spi_flash_erase(uint32_t addr, uint32_t kind);

// Address word for an opcode with a 24-bit address: bytes lowest first are the opcode and
// the address from its high byte down.
constexpr uint32_t spi_flash_addr_word(uint8_t opcode, uint32_t a) {
  return (((a >> 16) & 0xFFu) + (a & 0xFF00u) + ((a << 16) & 0xFF0000u)) << 8 | opcode;
}
