// Chip access: interface selector, register hooks, register and field primitives,
// traced access family, page register access, software framing and the platform hooks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

// ---- selector and link settings ------------------------------------------------------
#define ACCESS_IF_I2C 0
#define ACCESS_IF_SMI 1
#define ACCESS_IF_SPI 2
#define ACCESS_IF_RESERVED 3

extern uint8_t access_if;        // 0 I2C, 1 SMI, 2 SPI, 3 reserved, other: accesses fail
extern uint8_t mdcaddrid;        // chip's MDIO PHY address (default 24)
extern uint8_t i2caddrid;        // low three bits of the chip's I2C address (default 4)
extern uint32_t i2c_retry_limit; // extra attempts per adapter transfer (default 1)
extern uint32_t spi_retry_limit;
extern uint32_t smi_retry_limit;
extern uint32_t reg_debug_trace; // 0x8370 makes the traced primitives print every access

void access_if_set(uint32_t n);

// ---- result codes ----------------------------------------------------------------------
// What the access primitives and the adapter's transfers return (0 is success).
inline constexpr int32_t ACCESS_FAIL = -1;          // general failure, retries used up
inline constexpr int32_t ACCESS_BAD_FIELD = -2;     // bad field range, failed MDIO step
inline constexpr int32_t ACCESS_NULL_PTR = -8;
inline constexpr int32_t ACCESS_RESERVED_IF = -24;  // the reserved interface is selected
inline constexpr int32_t ACCESS_BAD_BITS = -1000;   // bit number or range out of 0..31
inline constexpr int32_t ACCESS_XFER_FAIL = -1001;  // a traced transfer failed
inline constexpr int32_t ACCESS_NO_ADAPTER = 8;     // the USB I/O adapter is not there
inline constexpr int32_t ACCESS_SMI_TIMEOUT = 15;   // SMI busy bit never cleared
inline constexpr int32_t ACCESS_NO_ACK = 24;        // no I2C acknowledge

// ---- register hooks ------------------------------------------------------------------
typedef int32_t (*reg_write_fn)(uint32_t addr, uint32_t value);
typedef int32_t (*reg_read_fn)(uint32_t addr, uint32_t *value);
typedef int32_t (*smi_write_fn)(uint32_t phy, uint32_t reg, uint16_t data);
typedef int32_t (*smi_read_fn)(uint32_t phy, uint32_t reg, uint16_t *data);

int32_t i2c_hooks_register(reg_write_fn w, reg_read_fn r);
int32_t smi_hooks_register(smi_write_fn w, smi_read_fn r);
int32_t spi_hooks_register(reg_write_fn w, reg_read_fn r);

// Line-level hooks for the software (bit-bang) framings.
typedef void (*line2_fn)(int a, int b);   // drive two lines together (SCL+SDA, MDC+MDIO)
typedef void (*line1_fn)(int level);      // drive one line / set a direction
typedef int (*sample_fn)(void);           // sample a line
typedef void (*spare_fn)(void);
typedef void (*spi_op_fn)(void);          // CS assert/release, SCK hi/lo, MOSI hi/lo
typedef void (*spi_delay_fn)(uint32_t n);

void i2c_line_hooks_set(line2_fn sclSda, line1_fn sdaDir, line1_fn scl, sample_fn sda, spare_fn spare);
void smi_line_hooks_set(line2_fn mdcMdio, line1_fn mdioDir, line1_fn mdc, sample_fn mdio, spare_fn spare);
void spi_line_hooks_set(spi_op_fn csAssert, spi_op_fn csRelease, spi_op_fn sckHigh, spi_op_fn sckLow,
                        spi_op_fn mosiHigh, spi_op_fn mosiLow, sample_fn miso, spi_delay_fn delay);

// Software register framings over the line hooks (registering these pairs requires the
// line hooks to be set first).
int32_t sw_i2c_reg_write(uint32_t addr, uint32_t value);
int32_t sw_i2c_reg_read(uint32_t addr, uint32_t *value);
int32_t sw_i2c_reg_write_burst(uint32_t addr, const uint32_t *values, uint32_t n);
int32_t sw_spi_reg_write(uint32_t addr, uint32_t value);
int32_t sw_spi_reg_read(uint32_t addr, uint32_t *value);
int32_t sw_smi_write(uint32_t phy, uint32_t reg, uint16_t data);
int32_t sw_smi_read(uint32_t phy, uint32_t reg, uint16_t *data);

// Trampolines: call the registered hook, or return 0xFFFFFFFF when none is registered.
int32_t i2c_if_reg_write(uint32_t addr, uint32_t value);
int32_t i2c_if_reg_read(uint32_t addr, uint32_t *value);
int32_t spi_if_reg_write(uint32_t addr, uint32_t value);
int32_t spi_if_reg_read(uint32_t addr, uint32_t *value);

// ---- which register family to call ----------------------------------------------------
// Two families reach the same registers:
// - reg_read/reg_write and the reg_field_* helpers (below): silent; the transport's own
//   code comes back (the hook's result, -8 for a null pointer, -24 on the reserved
//   interface, 15 for an SMI busy time-out). Drivers (hxk_, the table access, the flash
//   layer) and commands whose output must not change with the trace setting call these.
// - asic_reg_* (the traced family further down): print every access as R[..]/W[..] when
//   the trace word is 0x8370 and fold every transport failure into -1001 (-1000 for a bad
//   bit number or range, -1 for an SMI busy time-out, with a message). The `reg` command
//   family and the test suites call these, so that an engineer can watch their accesses.
// A new command that pokes registers on the engineer's behalf (like `reg`) takes asic_reg_*;
// code that works for another function and reports its own failures takes reg_*.

// ---- register primitives (unit is carried and ignored) -------------------------------
int32_t reg_read(uint32_t unit, uint32_t addr, uint32_t *value);
int32_t reg_write(uint32_t unit, uint32_t addr, uint32_t value);
int32_t reg_field_get(uint32_t unit, uint32_t addr, uint32_t lsp, uint32_t len, uint32_t *field, uint32_t regValue);
int32_t reg_field_set(uint32_t unit, uint32_t addr, uint32_t lsp, uint32_t len, uint32_t field, uint32_t *regValue);
int32_t reg_field_read(uint32_t unit, uint32_t addr, uint32_t lsp, uint32_t len, uint32_t *field);
int32_t reg_field_write(uint32_t unit, uint32_t addr, uint32_t lsp, uint32_t len, uint32_t field);

// SMI indirect 32-bit register access through MDIO registers 0, 2, 4, 6 of PHY mdcaddrid.
// Untraced: busy time-out gives 15. Traced (used by asic_reg_*): time-out prints a message, -1.
int32_t smi_indirect_read(uint32_t addr, uint32_t *value);
int32_t smi_indirect_write(uint32_t addr, uint32_t value);

// ---- traced access family ------------------------------------------------------------
int32_t asic_reg_read(uint32_t addr, uint32_t *value);
int32_t asic_reg_write(uint32_t addr, uint32_t value);
int32_t asic_reg_bit_set(uint32_t addr, uint32_t bit, uint32_t on);
int32_t asic_reg_bit_get(uint32_t addr, uint32_t bit, uint32_t *out);
int32_t asic_reg_bits_set(uint32_t addr, uint32_t startBit, uint32_t endBit, uint32_t value);
int32_t asic_reg_bits_get(uint32_t addr, uint32_t startBit, uint32_t endBit, uint32_t *out);
int32_t smi_write16(uint32_t phy, uint32_t page, uint32_t reg, uint16_t data);
int32_t smi_read16(uint32_t phy, uint32_t page, uint32_t reg, uint16_t *data);
int32_t lpt_reg_mask_set(uint32_t addr, uint32_t mask, uint32_t value);
int32_t lpt_reg_mask_get(uint32_t addr, uint32_t mask, uint32_t *out);

// Burst read of n consecutive registers; only the USB adapter's I2C side performs it
// (it registers the hook together with its I2C pair), other interfaces return 0 without
// reading. Without a hook the I2C burst fails with ACCESS_FAIL.
typedef int32_t (*reg_burst_read_fn)(uint32_t addr, uint32_t *values, uint32_t n);
void i2c_burst_hook_register(reg_burst_read_fn fn);
int32_t asic_reg_read_burst(uint32_t addr, uint32_t *values, uint32_t n);

// ---- page register -------------------------------------------------------------------
#define PAGE_REG_ADDR 0xFFFF01u
#define PAGE_AXI 0x00u
#define PAGE_CPU 0x42u
#define PAGE_SWCORE 0x4Au
#define PAGE_SPIC 0x51u
int32_t page_reg_read(uint32_t addr, uint32_t *value);
int32_t page_reg_write(uint32_t addr, uint32_t value);

// Start-up chip check: 0 when the chip's generation field is 4, else the failing code or -1.
int32_t chip_probe(void);

// ---- parallel-port link (inert unless a port-output operation is bound) ----------------
typedef void (*lpt_out_fn)(uint16_t port, uint8_t value);
typedef uint8_t (*lpt_in_fn)(uint16_t port);
void lpt_port_ops_set(lpt_out_fn out, lpt_in_fn in);
void lpt_pin_setup_scl_sda(uint32_t scl, uint32_t sda);
void lpt_pin_setup_sda_in(uint32_t sdaIn);
void lpt_pin_setup_aux(uint32_t a, uint32_t b, uint32_t c);

// ---- width notice for byte/word writes to a data register ----------------------------
// The transports carry 32-bit values only; code that means a byte or half-word write
// announces the width here just before the write. Nothing listens on real hardware.
typedef void (*reg_width_notice_fn)(uint32_t addr, uint32_t width);
void reg_width_notice_set(reg_width_notice_fn fn);
void reg_width_notice(uint32_t addr, uint32_t width);

// ---- platform hook table -------------------------------------------------------------
typedef int (*plat_print_fn)(const char *fmt, ...);
typedef int (*plat_fprint_fn)(FILE *f, const char *fmt, ...);
typedef char *(*plat_gets_fn)(char *buf, int size, FILE *f);
typedef FILE *(*plat_fopen_fn)(const char *path, const char *mode);
typedef size_t (*plat_fread_fn)(void *buf, size_t size, size_t n, FILE *f);
typedef int (*plat_fclose_fn)(FILE *f);
typedef int (*plat_delay_fn)(uint32_t usec);
struct platform_hooks_t {
  plat_print_fn print;
  plat_fprint_fn fprint;
  plat_gets_fn gets;
  plat_fopen_fn fopen;
  plat_fread_fn fread;
  plat_fclose_fn fclose;
  plat_delay_fn delay;
};
extern platform_hooks_t platform_hooks;
// Each setter refuses a null function (-1) and returns 0 otherwise.
int32_t platform_print_set(plat_print_fn f);
int32_t platform_fprint_set(plat_fprint_fn f);
int32_t platform_gets_set(plat_gets_fn f);
int32_t platform_fopen_set(plat_fopen_fn f);
int32_t platform_fread_set(plat_fread_fn f);
int32_t platform_fclose_set(plat_fclose_fn f);
int32_t platform_delay_set(plat_delay_fn f);
void hx_delay_us(uint32_t usec);   // through the delay hook; nothing when unset
