// Software (bit-bang) register framings for I2C, SPI and SMI over the line-level hooks.
// Line conventions: the two-line hooks take (clock, data); the direction hooks take 1 for
// output and 0 for input.
#include <cstdint>

#include "access/access.h"
#include "access/access_local.h"

namespace {

struct TwoWireLines {
  line2_fn both = nullptr;    // SCL+SDA or MDC+MDIO
  line1_fn dataDir = nullptr; // 1 output, 0 input
  line1_fn clock = nullptr;
  sample_fn data = nullptr;
  spare_fn spare = nullptr;
  bool complete() const { return both && dataDir && clock && data && spare; }
};

struct SpiLines {
  spi_op_fn csAssert = nullptr, csRelease = nullptr, sckHigh = nullptr, sckLow = nullptr;
  spi_op_fn mosiHigh = nullptr, mosiLow = nullptr;
  sample_fn miso = nullptr;
  spi_delay_fn delay = nullptr;
  bool complete() const {
    return csAssert && csRelease && sckHigh && sckLow && mosiHigh && mosiLow && miso && delay;
  }
};

TwoWireLines g_i2c;
TwoWireLines g_smi;
SpiLines g_spi;

constexpr int kAckWindow = 9;    // acknowledge must come within these samples
constexpr int kAckSamples = 10;  // one more sample is taken before giving up

// ---- I2C -----------------------------------------------------------------------------------

// One data bit on a two-wire bus: four line states (0, b), (1, b), (1, b), (0, b).
void clock_bit(const TwoWireLines &l, int b) {
  l.both(0, b);
  l.both(1, b);
  l.both(1, b);
  l.both(0, b);
}

void i2c_bit(int b) { clock_bit(g_i2c, b); }

void i2c_start() {
  g_i2c.both(1, 1);
  g_i2c.both(1, 1);
  g_i2c.both(1, 0);
  g_i2c.both(0, 0);
}

void i2c_stop() {
  g_i2c.both(0, 0);
  g_i2c.both(1, 0);
  g_i2c.both(1, 1);
  g_i2c.both(1, 1);
}

void i2c_byte_out(uint8_t v) {
  for (int i = 7; i >= 0; --i) i2c_bit((v >> i) & 1);
}

int32_t i2c_check_ack() {
  g_i2c.dataDir(0);
  g_i2c.clock(0);
  g_i2c.clock(1);
  bool acked = false;
  for (int i = 0; i < kAckSamples; ++i) {
    const int level = g_i2c.data();
    if (i < kAckWindow && level == 0) {
      acked = true;
      break;
    }
  }
  g_i2c.clock(0);
  g_i2c.dataDir(1);
  if (!acked) {
    i2c_stop();
    return ACCESS_NO_ACK;
  }
  return 0;
}

int32_t i2c_send(uint8_t v) {
  i2c_byte_out(v);
  return i2c_check_ack();
}

uint8_t i2c_control(bool read) {
  return static_cast<uint8_t>(0xA0 | ((i2caddrid & 7) << 1) | (read ? 1 : 0));
}

int32_t i2c_send_address(uint32_t addr) {
  int32_t rc = i2c_send(i2c_control(false));
  for (int i = 0; i < 3 && rc == 0; ++i) rc = i2c_send(static_cast<uint8_t>(addr >> (8 * i)));
  return rc;
}

uint8_t i2c_byte_in() {
  uint8_t v = 0;
  for (int i = 0; i < 8; ++i) {
    g_i2c.clock(0);
    g_i2c.clock(1);
    v = static_cast<uint8_t>((v << 1) | (g_i2c.data() ? 1 : 0));
    g_i2c.clock(1);
    g_i2c.clock(0);
  }
  return v;
}

// ---- SPI -----------------------------------------------------------------------------------

void spi_select() {
  g_spi.csRelease();
  g_spi.sckLow();
  g_spi.mosiLow();
  g_spi.delay(1);
  g_spi.csAssert();
  g_spi.delay(1);
  g_spi.sckLow();
  g_spi.delay(1);
}

void spi_deselect() {
  g_spi.delay(1);
  g_spi.csRelease();
  g_spi.delay(1);
  g_spi.delay(50);
  g_spi.csRelease();
}

void spi_byte_out(uint8_t v) {
  for (int i = 7; i >= 0; --i) {
    g_spi.sckLow();
    if ((v >> i) & 1) g_spi.mosiHigh(); else g_spi.mosiLow();
    g_spi.delay(1);
    g_spi.sckHigh();
    g_spi.delay(1);
  }
  g_spi.sckLow();
  g_spi.mosiLow();
}

uint8_t spi_byte_in() {
  uint8_t v = 0;
  for (int i = 0; i < 8; ++i) {
    g_spi.delay(1);
    g_spi.sckHigh();
    v = static_cast<uint8_t>((v << 1) | (g_spi.miso() ? 1 : 0));
    g_spi.delay(1);
    g_spi.sckLow();
  }
  return v;
}

void spi_address(uint8_t opcode, uint32_t addr) {
  spi_byte_out(opcode);
  spi_byte_out(static_cast<uint8_t>(addr >> 16));
  spi_byte_out(static_cast<uint8_t>(addr >> 8));
  spi_byte_out(static_cast<uint8_t>(addr));
}

// ---- SMI (IEEE 802.3 clause 22 frame) --------------------------------------------------------

void smi_bits(uint32_t v, int n) {
  for (int i = n - 1; i >= 0; --i) clock_bit(g_smi, (v >> i) & 1);
}

// Preamble, start, opcode (01 write, 10 read), PHY address and register number.
void smi_frame_head(uint32_t opcode, uint32_t phy, uint32_t reg) {
  smi_bits(0xFFFFFFFFu, 32);
  smi_bits(0x1, 2);  // start bits 0 1
  smi_bits(opcode, 2);
  smi_bits(phy & 0x1F, 5);
  smi_bits(reg & 0x1F, 5);
}

// One bit driven by the PHY: clock high, sample, clock low.
int smi_bit_in() {
  g_smi.clock(1);
  const int v = g_smi.data() ? 1 : 0;
  g_smi.clock(0);
  return v;
}

}  // namespace

// ---- line hook setters ----------------------------------------------------------------------

void i2c_line_hooks_set(line2_fn sclSda, line1_fn sdaDir, line1_fn scl, sample_fn sda, spare_fn spare) {
  g_i2c = {sclSda, sdaDir, scl, sda, spare};
}

void smi_line_hooks_set(line2_fn mdcMdio, line1_fn mdioDir, line1_fn mdc, sample_fn mdio, spare_fn spare) {
  g_smi = {mdcMdio, mdioDir, mdc, mdio, spare};
}

void spi_line_hooks_set(spi_op_fn csAssert, spi_op_fn csRelease, spi_op_fn sckHigh, spi_op_fn sckLow,
                        spi_op_fn mosiHigh, spi_op_fn mosiLow, sample_fn miso, spi_delay_fn delay) {
  g_spi = {csAssert, csRelease, sckHigh, sckLow, mosiHigh, mosiLow, miso, delay};
}

namespace access_local {
bool i2c_lines_complete() { return g_i2c.complete(); }
bool smi_lines_complete() { return g_smi.complete(); }
bool spi_lines_complete() { return g_spi.complete(); }
void spi_lines_idle() {
  g_spi.csRelease();
  g_spi.sckLow();
  g_spi.mosiLow();
}
}  // namespace access_local

// ---- software register framings --------------------------------------------------------------

int32_t sw_i2c_reg_write(uint32_t addr, uint32_t value) {
  if (!g_i2c.complete()) return -1;
  i2c_start();
  int32_t rc = i2c_send_address(addr);
  for (int i = 0; i < 4 && rc == 0; ++i) rc = i2c_send(static_cast<uint8_t>(value >> (8 * i)));
  if (rc != 0) return rc;  // the failed acknowledge already sent the stop
  i2c_stop();
  return 0;
}

int32_t sw_i2c_reg_read(uint32_t addr, uint32_t *value) {
  if (!g_i2c.complete()) return -1;
  if (!value) return -8;
  i2c_start();
  int32_t rc = i2c_send_address(addr);
  if (rc != 0) return rc;
  i2c_start();
  rc = i2c_send(i2c_control(true));
  if (rc != 0) return rc;
  uint32_t v = 0;
  for (int i = 0; i < 4; ++i) {
    g_i2c.dataDir(0);
    v |= static_cast<uint32_t>(i2c_byte_in()) << (8 * i);
    g_i2c.dataDir(1);
    i2c_bit(i < 3 ? 0 : 1);  // acknowledge bytes 1-3, not the last
  }
  i2c_stop();
  *value = v;
  return 0;
}

int32_t sw_i2c_reg_write_burst(uint32_t addr, const uint32_t *values, uint32_t n) {
  if (!g_i2c.complete()) return -1;
  if (!values && n) return -8;
  // Every byte is sent even after a missing acknowledge; the last byte's code is returned.
  i2c_start();
  int32_t rc = i2c_send(i2c_control(false));
  for (int i = 0; i < 3; ++i) rc = i2c_send(static_cast<uint8_t>(addr >> (8 * i)));
  for (uint32_t k = 0; k < n; ++k)
    for (int i = 0; i < 4; ++i) rc = i2c_send(static_cast<uint8_t>(values[k] >> (8 * i)));
  i2c_stop();
  return rc;
}

int32_t sw_spi_reg_write(uint32_t addr, uint32_t value) {
  if (!g_spi.complete()) return -1;
  spi_select();
  spi_address(0x02, addr);
  for (int i = 3; i >= 0; --i) spi_byte_out(static_cast<uint8_t>(value >> (8 * i)));
  spi_deselect();
  return 0;
}

int32_t sw_spi_reg_read(uint32_t addr, uint32_t *value) {
  if (!g_spi.complete()) return -1;
  if (!value) return -8;
  spi_select();
  spi_address(0x03, addr);
  (void)spi_byte_in();  // turnaround byte
  uint32_t v = 0;
  for (int i = 0; i < 4; ++i) v = (v << 8) | spi_byte_in();
  spi_deselect();
  *value = v;
  return 0;
}

int32_t sw_smi_write(uint32_t phy, uint32_t reg, uint16_t data) {
  if (!g_smi.complete()) return -1;
  g_smi.dataDir(1);
  smi_frame_head(0x1, phy, reg);
  smi_bits(0x2, 2);  // turnaround 1 0
  smi_bits(data, 16);
  return 0;
}

int32_t sw_smi_read(uint32_t phy, uint32_t reg, uint16_t *data) {
  if (!g_smi.complete()) return -1;
  if (!data) return -8;
  g_smi.dataDir(1);
  smi_frame_head(0x2, phy, reg);
  g_smi.dataDir(0);
  (void)smi_bit_in();                 // turnaround: line released
  const int ta = smi_bit_in();        // turnaround: the PHY drives 0
  uint32_t v = 0;
  for (int i = 0; i < 16; ++i) v = (v << 1) | static_cast<uint32_t>(smi_bit_in());
  g_smi.dataDir(1);
  if (ta != 0) return -1;  // no PHY answered
  *data = static_cast<uint16_t>(v);
  return 0;
}
