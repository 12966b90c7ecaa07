// Parallel-port I2C link: the register framing of the software I2C driven by writing whole
// bytes to the PC parallel port's data register. No port-output operation is bound in this
// system, so every transfer reports failure until one is installed with lpt_port_ops_set.
#include <cstdint>

#include "access/access.h"
#include "access/access_local.h"

namespace {

constexpr uint16_t kDataPort = 0x378;
constexpr uint16_t kStatusPort = 0x379;
constexpr int kAckSamples = 9;

struct LptLink {
  lpt_out_fn out = nullptr;
  lpt_in_fn in = nullptr;
  uint32_t sclBit = 3;
  uint32_t sdaBit = 0;
  uint32_t sdaInBit = 4;
  uint32_t aux[3] = {1, 2, 0};
  uint8_t devAddr = 4;   // three device-address bits of the control byte
  uint8_t data = 0;      // last byte written to the data register
};
LptLink g_lpt;

void drive(int scl, int sda) {
  uint8_t v = g_lpt.data;
  v = static_cast<uint8_t>(scl ? (v | (1u << g_lpt.sclBit)) : (v & ~(1u << g_lpt.sclBit)));
  v = static_cast<uint8_t>(sda ? (v | (1u << g_lpt.sdaBit)) : (v & ~(1u << g_lpt.sdaBit)));
  g_lpt.data = v;
  g_lpt.out(kDataPort, v);
}

int sample() { return g_lpt.in ? ((g_lpt.in(kStatusPort) >> g_lpt.sdaInBit) & 1) : 1; }

void start() { drive(1, 1); drive(1, 1); drive(1, 0); drive(0, 0); }
void stop() { drive(0, 0); drive(1, 0); drive(1, 1); drive(1, 1); }

void bit_out(int b) { drive(0, b); drive(1, b); drive(1, b); drive(0, b); }

void byte_out(uint8_t v) {
  for (int i = 7; i >= 0; --i) bit_out((v >> i) & 1);
}

// Releases SDA (driven high) and clocks once; true when the device pulled SDA low.
bool ack() {
  drive(0, 1);
  drive(1, 1);
  bool ok = false;
  for (int i = 0; i < kAckSamples && !ok; ++i) ok = sample() == 0;
  drive(0, 1);
  return ok;
}

uint8_t byte_in() {
  uint8_t v = 0;
  for (int i = 0; i < 8; ++i) {
    drive(0, 1);
    drive(1, 1);
    v = static_cast<uint8_t>((v << 1) | sample());
    drive(0, 1);
  }
  return v;
}

uint8_t control(bool read) { return static_cast<uint8_t>(0xA0 | ((g_lpt.devAddr & 7) << 1) | (read ? 1 : 0)); }

bool send_acked(uint8_t v) {
  byte_out(v);
  return ack();
}

bool send_address(uint32_t addr) {
  return send_acked(control(false)) && send_acked(static_cast<uint8_t>(addr)) &&
         send_acked(static_cast<uint8_t>(addr >> 8)) && send_acked(static_cast<uint8_t>(addr >> 16));
}

}  // namespace

void lpt_port_ops_set(lpt_out_fn out, lpt_in_fn in) {
  g_lpt.out = out;
  g_lpt.in = in;
}

void lpt_pin_setup_scl_sda(uint32_t scl, uint32_t sda) {
  g_lpt.sclBit = scl & 7;
  g_lpt.sdaBit = sda & 7;
}

void lpt_pin_setup_sda_in(uint32_t sdaIn) { g_lpt.sdaInBit = sdaIn & 7; }

void lpt_pin_setup_aux(uint32_t a, uint32_t b, uint32_t c) {
  g_lpt.aux[0] = a;
  g_lpt.aux[1] = b;
  g_lpt.aux[2] = c;
}

namespace access_local {

int lpt_i2c_read(uint32_t addr, uint8_t *buf, uint32_t n) {
  if (!g_lpt.out || !buf) return 0;
  start();
  if (!send_address(addr)) { stop(); return 0; }
  start();
  if (!send_acked(control(true))) { stop(); return 0; }
  for (uint32_t i = 0; i < n; ++i) {
    buf[i] = byte_in();
    if (i + 1 < n) bit_out(0);
  }
  bit_out(1);
  stop();
  return 1;
}

int lpt_i2c_write(uint32_t addr, uint32_t value) {
  if (!g_lpt.out) return 0;
  start();
  if (!send_address(addr)) { stop(); return 0; }
  for (int i = 0; i < 4; ++i)
    if (!send_acked(static_cast<uint8_t>(value >> (8 * i)))) { stop(); return 0; }
  stop();
  return 1;
}

}  // namespace access_local
