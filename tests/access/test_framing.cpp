// Software I2C, SPI and SMI framings decoded from a line-level model of the bus.
#include <gtest/gtest.h>

#include <deque>
#include <string>

#include "access/access.h"

namespace {

std::string bits(uint32_t v, int n = 8) {
  std::string s;
  for (int i = n - 1; i >= 0; --i) s += ((v >> i) & 1) ? '1' : '0';
  return s;
}

// Queues the n low bits of v, most significant first, as levels a device shows.
void push_bits(std::deque<int> &levels, uint32_t v, int n) {
  for (int i = n - 1; i >= 0; --i) levels.push_back((v >> i) & 1);
}

// The next level a device shows on its data line (`idle` when it has nothing to say).
int next_level(std::deque<int> &levels, int idle) {
  if (levels.empty()) return idle;
  const int v = levels.front();
  levels.pop_front();
  return v;
}

// ---- I2C bus model ------------------------------------------------------------------------------
// Decodes the master's lines into 'S' (start), 'P' (stop), '0'/'1' (bits the master drove)
// and 'r' (clock pulses while the master listens). A bit counts when SCL falls again, so a
// clock high phase that ends in a start or stop condition is not a bit.
struct I2cBus {
  int scl = 1, sda = 1, out = 1;
  int pending = -1;  // bit seen at the last rising edge
  std::string log;
  std::deque<int> replies;  // levels the device shows on SDA at each sample
  int samples = 0;

  void clock(int s) {
    if (!scl && s) pending = out ? sda : 2;
    if (scl && !s && pending >= 0) log += pending == 2 ? 'r' : char('0' + pending);
    if (!s) pending = -1;
    scl = s;
  }
  void both(int s, int d) {
    if (scl && s && out) {
      if (sda && !d) { log += 'S'; pending = -1; }
      if (!sda && d) { log += 'P'; pending = -1; }
    }
    sda = d;
    clock(s);
  }
} g_i2c;

void i2c_both(int s, int d) { g_i2c.both(s, d); }
void i2c_dir(int o) { g_i2c.out = o; }
void i2c_scl(int s) { g_i2c.clock(s); }
int i2c_sample() {
  ++g_i2c.samples;
  return next_level(g_i2c.replies, 1);
}
void spare() {}

std::string acked(uint8_t b) { return bits(b) + "r"; }

// A fresh bus to the device at `id`, which stays silent for `silent` samples, then
// acknowledges `acks`.
void i2c_fresh(int acks, int silent = 0, uint32_t id = 4) {
  g_i2c = I2cBus{};
  i2caddrid = id;
  g_i2c.replies.assign(size_t(silent), 1);
  g_i2c.replies.resize(size_t(silent + acks), 0);
}

class SoftI2c : public ::testing::Test {
 protected:
  void SetUp() override {
    i2c_line_hooks_set(i2c_both, i2c_dir, i2c_scl, i2c_sample, spare);
    ASSERT_EQ(i2c_hooks_register(sw_i2c_reg_write, sw_i2c_reg_read), 0);
  }
  void TearDown() override { i2caddrid = 4; }
};

TEST_F(SoftI2c, WriteFrame) {
  i2c_fresh(8);
  ASSERT_EQ(reg_write(1, 0x123456, 0xA1B2C3D4), 0);
  EXPECT_EQ(g_i2c.log, "S" + acked(0xA8) + acked(0x56) + acked(0x34) + acked(0x12) + acked(0xD4) + acked(0xC3) +
                           acked(0xB2) + acked(0xA1) + "P");
  EXPECT_EQ(g_i2c.samples, 8);

  i2c_fresh(8, 0, 0xD);  // only the low three bits count
  ASSERT_EQ(reg_write(1, 0, 0), 0);
  EXPECT_EQ(g_i2c.log.substr(0, 10), "S" + acked(0xAA));

  // Burst: address once, then every value, even after a missing acknowledge (which sends
  // its own stop); the last byte's code is returned.
  const uint32_t vals[2] = {0x11223344, 0x55667788};
  for (int lastAcked : {1, 0}) {
    i2c_fresh(10 + lastAcked, 10);  // the control byte is not acknowledged
    EXPECT_EQ(sw_i2c_reg_write_burst(0x010203, vals, 2), lastAcked ? 0 : 24);
    std::string body = acked(3) + acked(2) + acked(1);
    for (uint8_t b : {0x44, 0x33, 0x22, 0x11, 0x88, 0x77, 0x66}) body += acked(b);
    EXPECT_EQ(g_i2c.log, "S" + acked(0xA8) + "P" + body + bits(0x55) + (lastAcked ? "rP" : "rPP"));
  }
}

TEST_F(SoftI2c, ReadFrameValueAcknowledgeWindowAndCode24) {
  i2c_fresh(5);
  push_bits(g_i2c.replies, 0x78563412, 32);  // low byte first
  uint32_t v = 0;
  ASSERT_EQ(reg_read(1, 0x0A0B0C, &v), 0);
  EXPECT_EQ(v, 0x12345678u);
  const std::string byteIn(8, 'r');
  EXPECT_EQ(g_i2c.log, "S" + acked(0xA8) + acked(0x0C) + acked(0x0B) + acked(0x0A) + "S" + acked(0xA9) + byteIn +
                           "0" + byteIn + "0" + byteIn + "0" + byteIn + "1" + "P");

  // Acknowledge on the ninth sample is still in time.
  i2c_fresh(8, 8);
  EXPECT_EQ(reg_write(1, 0, 0), 0);

  // On the tenth it is too late: ten samples, a stop, code 24, nothing more sent.
  i2c_fresh(1, 9);
  EXPECT_EQ(reg_write(1, 0, 0), 24);
  EXPECT_EQ(g_i2c.samples, 10);
  EXPECT_EQ(g_i2c.log, "S" + acked(0xA8) + "P");

  // A missing acknowledge on an address byte of a read ends it there too.
  i2c_fresh(2);
  g_i2c.replies.resize(12, 1);
  v = 99;
  EXPECT_EQ(reg_read(1, 0x30201, &v), 24);
  EXPECT_EQ(v, 99u);
  EXPECT_EQ(g_i2c.log, "S" + acked(0xA8) + acked(0x01) + acked(0x02) + "P");
}

// ---- SPI bus model ------------------------------------------------------------------------------
struct SpiBus {
  bool cs = false;
  int sck = 0, mosi = 0;
  int bitCount = 0;
  uint32_t cur = 0;
  std::string bytesOut;   // MOSI bytes as hex pairs
  std::string events;     // line operations in order
  std::deque<int> miso;
} g_spi;

void spi_clock(int s) {
  if (g_spi.cs && !g_spi.sck && s) {
    g_spi.cur = (g_spi.cur << 1) | uint32_t(g_spi.mosi);
    if (++g_spi.bitCount == 8) {
      char b[4];
      snprintf(b, sizeof b, "%02x", g_spi.cur & 0xFF);
      g_spi.bytesOut += b;
      g_spi.bitCount = 0;
      g_spi.cur = 0;
    }
  }
  g_spi.sck = s;
}
void spi_cs_on() { g_spi.cs = true; g_spi.events += 'A'; }
void spi_cs_off() { g_spi.cs = false; g_spi.bitCount = 0; g_spi.events += 'R'; }
void spi_sck_hi() { spi_clock(1); g_spi.events += 'H'; }
void spi_sck_lo() { spi_clock(0); g_spi.events += 'L'; }
void spi_mosi_hi() { g_spi.mosi = 1; g_spi.events += '1'; }
void spi_mosi_lo() { g_spi.mosi = 0; g_spi.events += '0'; }
int spi_miso() {
  g_spi.events += 'm';
  return next_level(g_spi.miso, 0);
}
void spi_delay(uint32_t n) { g_spi.events += "d" + std::to_string(n); }

TEST(SoftSpi, WriteAndReadFrames) {
  g_spi = SpiBus{};
  EXPECT_EQ(spi_hooks_register(sw_spi_reg_write, sw_spi_reg_read), -1);  // lines not set yet
  spi_line_hooks_set(spi_cs_on, spi_cs_off, spi_sck_hi, spi_sck_lo, spi_mosi_hi, spi_mosi_lo, spi_miso, spi_delay);
  ASSERT_EQ(spi_hooks_register(sw_spi_reg_write, sw_spi_reg_read), 0);
  EXPECT_EQ(g_spi.events, "RL0");  // lines parked once: released, clock low, data low
  EXPECT_EQ(access_if, 2);

  g_spi.events.clear();
  ASSERT_EQ(reg_write(1, 0xABCDEF, 0x01020304), 0);
  EXPECT_EQ(g_spi.bytesOut, "02abcdef01020304");
  EXPECT_EQ(g_spi.events.rfind("RL0d1Ad1Ld1", 0), 0u);               // select sequence
  EXPECT_EQ(g_spi.events.substr(g_spi.events.size() - 9), "d1Rd1d50R");  // release sequence
  // A one bit: clock low, data high, delay, clock high, delay.
  EXPECT_NE(g_spi.events.find("L1d1Hd1"), std::string::npos);

  g_spi = SpiBus{};
  push_bits(g_spi.miso, 0xFF, 8);  // the discarded byte
  push_bits(g_spi.miso, 0xDEADBEEF, 32);
  uint32_t v = 0;
  ASSERT_EQ(reg_read(1, 0x000102, &v), 0);
  EXPECT_EQ(v, 0xDEADBEEFu);
  EXPECT_EQ(g_spi.bytesOut, "030001020000000000");  // opcode, address, five clocked-in bytes
  EXPECT_NE(g_spi.events.find("d1Hmd1L"), std::string::npos);  // a bit in
  access_if_set(0);
}

// ---- SMI bus model ------------------------------------------------------------------------------
struct SmiBus {
  int mdc = 0, mdio = 1, out = 1;
  std::string bitsOut;
  std::deque<int> replies;
} g_smi;

void smi_both(int c, int d) {
  g_smi.mdio = d;
  if (!g_smi.mdc && c && g_smi.out) g_smi.bitsOut += char('0' + d);
  g_smi.mdc = c;
}
void smi_dir(int o) { g_smi.out = o; }
void smi_mdc(int c) { g_smi.mdc = c; }
int smi_sample() { return next_level(g_smi.replies, 1); }

TEST(SoftSmi, Clause22Frames) {
  g_smi = SmiBus{};
  smi_line_hooks_set(smi_both, smi_dir, smi_mdc, smi_sample, spare);
  ASSERT_EQ(smi_hooks_register(sw_smi_write, sw_smi_read), 0);
  ASSERT_EQ(sw_smi_write(0x18, 0x06, 0x8123), 0);
  EXPECT_EQ(g_smi.bitsOut, std::string(32, '1') + "01" + "01" + bits(0x18, 5) + bits(6, 5) + "10" + bits(0x8123, 16));

  g_smi = SmiBus{};
  push_bits(g_smi.replies, 0x2BEEF, 18);  // turnaround "10", then the data
  uint16_t d = 0;
  ASSERT_EQ(sw_smi_read(3, 2, &d), 0);
  EXPECT_EQ(d, 0xBEEF);
  EXPECT_EQ(g_smi.bitsOut, std::string(32, '1') + "01" + "10" + bits(3, 5) + bits(2, 5));

  g_smi = SmiBus{};  // nobody drives the turnaround low: no PHY
  EXPECT_EQ(sw_smi_read(9, 2, &d), -1);
  EXPECT_EQ(d, 0xBEEF);
  access_if_set(0);
}

}  // namespace
