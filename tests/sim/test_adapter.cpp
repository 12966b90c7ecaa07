// The adapter protocol from the host side: every command code, status byte and response shape.
#include <gtest/gtest.h>

#include <cerrno>

#include "board_harness.h"
#include "sim/sim_chip.h"

TEST(Adapter, ConfigurationExchangesAckThenComplete) {
  BoardHarness b;
  for (Bytes h : {config_hdr(0x11, 2, 0xA8), config_hdr(0x21, 37, 0), config_hdr(0x41, 32, 0)}) {
    ASSERT_EQ(b.out(h), 24);
    EXPECT_EQ(b.status(), 0xAA);
    EXPECT_EQ(b.status(), 0xCA);
    EXPECT_EQ(b.status(), -ETIMEDOUT);   // nothing more to send
  }
}

TEST(Adapter, I2cWriteReadRoundTripWithByteOrders) {
  BoardHarness b;
  b.i2c_write(0x180048, 0x11223344);
  EXPECT_EQ(b.i2c_read(0x180048), 0x11223344u);
  // I2C is least significant byte first on the wire, SPI most significant first: the same
  // register seen through both transports gives the same value.
  EXPECT_EQ(b.spi_read(0x180048), 0x11223344u);
  b.spi_write(0x180050, 0xA1B2C3D4);
  EXPECT_EQ(b.i2c_read(0x180050), 0xA1B2C3D4u);
  EXPECT_EQ(sim::chip_read(0x4A180050), 0xA1B2C3D4u);   // page 0x4A after reset
}

TEST(Adapter, ReadResponseLayout) {
  BoardHarness b;
  b.i2c_write(0x000100, 0x0A0B0C0D);
  Bytes h = read_hdr(0x14, i2c_addr(0x000100), 4);
  ASSERT_EQ(b.out(h), 27);
  ASSERT_EQ(b.status(), 0xAA);
  int rc = 0;
  Bytes r = b.in(24 + 3 + 4 + 4, rc);
  ASSERT_EQ(rc, 35);
  EXPECT_EQ(r[8], 0x14);
  EXPECT_EQ(Bytes(r.begin() + 24, r.begin() + 27), i2c_addr(0x000100));   // address block echoed
  EXPECT_EQ(Bytes(r.begin() + 27, r.begin() + 31), le32(0x0A0B0C0D));
  EXPECT_EQ(Bytes(r.begin() + 31, r.end()), Bytes(4, 0xFF));               // trailing bytes

  // SPI: address block 03 a2 a1 a0 00 echoed, data most significant first.
  Bytes s = read_hdr(0x24, {0x03, 0x00, 0x01, 0x00, 0x00}, 4);
  ASSERT_EQ(b.out(s), 29);
  ASSERT_EQ(b.status(), 0xAA);
  r = b.in(24 + 5 + 4 + 4, rc);
  ASSERT_EQ(rc, 37);
  EXPECT_EQ(r[8], 0x24);
  EXPECT_EQ(Bytes(r.begin() + 29, r.begin() + 33), be32(0x0A0B0C0D));
}

TEST(Adapter, BurstReadAndBurstWriteUseConsecutiveRegisters) {
  BoardHarness b;
  Bytes data;
  for (uint32_t i = 0; i < 8; ++i) {
    Bytes w = le32(0x100 + i);
    data.insert(data.end(), w.begin(), w.end());
  }
  ASSERT_EQ(b.out(write_hdr(0x13, i2c_addr(0x2000), 32)), 27);
  ASSERT_EQ(b.status(), 0xAA);
  ASSERT_EQ(b.out(data_pkt(data)), 36);
  ASSERT_EQ(b.status(), 0xBA);
  EXPECT_EQ(sim::chip_read(0x4A00201C), 0x107u);

  ASSERT_EQ(b.out(read_hdr(0x14, i2c_addr(0x2000), 32)), 27);
  ASSERT_EQ(b.status(), 0xAA);
  int rc = 0;
  Bytes r = b.in(24 + 3 + 32 + 4, rc);
  ASSERT_EQ(rc, 63);
  EXPECT_EQ(Bytes(r.begin() + 27, r.begin() + 59), data);
}

TEST(Adapter, SmiExchanges) {
  BoardHarness b;
  b.smi_write(3, 9, 0xBEEF);
  EXPECT_EQ(b.smi_read(3, 9), 0xBEEF);
  EXPECT_EQ(sim::mdio_read(3, 9), 0xBEEF);
  EXPECT_EQ(b.smi_read(12, 1), 0xFFFF);   // nobody at address 12
}

TEST(Adapter, RefusesMalformedOrUnknownCommands) {
  BoardHarness b;
  Bytes h = read_hdr(0x14, i2c_addr(0), 4);
  h[6] = 30;   // length byte disagrees with the transfer
  ASSERT_EQ(b.out(h), 27);
  EXPECT_EQ(b.status(), 0xAB);
  EXPECT_EQ(b.status(), -ETIMEDOUT);
  ASSERT_EQ(b.out(hdr(0x77, 1)), 24);
  EXPECT_EQ(b.status(), 0xAB);
  // SPI write without the 0x02 opcode, SPI read without 0x03, SMI with a wrong sub-code.
  ASSERT_EQ(b.out(write_hdr(0x23, {0x03, 0, 0, 0}, 4)), 28);
  EXPECT_EQ(b.status(), 0xAB);
  ASSERT_EQ(b.out(read_hdr(0x24, {0x02, 0, 0, 0, 0}, 4)), 29);
  EXPECT_EQ(b.status(), 0xAB);
  Bytes s = smi_hdr(0x44, 24, 0);
  s[9] = 1;
  s[13] = 2;
  ASSERT_EQ(b.out(s), 24);
  EXPECT_EQ(b.status(), 0xAB);
  // Not a header and no command waiting for data: swallowed, nothing answered.
  ASSERT_EQ(b.out({1, 2, 3}), 3);
  EXPECT_EQ(b.status(), -ETIMEDOUT);
}

TEST(Adapter, I2cAnswersOnlyAtTheChipsAddress) {
  BoardHarness b;
  ASSERT_EQ(b.out(config_hdr(0x11, 2, 0xA6)), 24);   // i2caddrid 3
  EXPECT_EQ(b.status(), 0xAA);
  EXPECT_EQ(b.status(), 0xCA);
  ASSERT_EQ(b.out(read_hdr(0x14, i2c_addr(0x100), 4)), 27);
  EXPECT_EQ(b.status(), 0xAB);
  ASSERT_EQ(b.out(write_hdr(0x13, i2c_addr(0x100), 4)), 27);
  EXPECT_EQ(b.status(), 0xAB);
  ASSERT_EQ(b.out(flash_hdr(0x15, 0, 4, 0)), 24);
  EXPECT_EQ(b.status(), 0xAB);
  // SPI and SMI do not care about the I2C address.
  EXPECT_EQ(b.spi_read(0x100), 0u);
  ASSERT_EQ(b.out(config_hdr(0x11, 2, 0xA8)), 24);
  EXPECT_EQ(b.status(), 0xAA);
  EXPECT_EQ(b.status(), 0xCA);
  EXPECT_EQ(b.i2c_read(0x100), 0u);
}

namespace {
struct FlashCall {
  uint32_t addr = 0, len = 0;
  uint8_t flag = 0;
  Bytes data;
  int calls = 0;
} g_flash;
void flash_sink(uint32_t a, const uint8_t *d, uint32_t n, uint8_t flag) {
  g_flash.addr = a;
  g_flash.len = n;
  g_flash.flag = flag;
  g_flash.data.assign(d, d + n);
  ++g_flash.calls;
}
}  // namespace

TEST(Adapter, FlashWriteHandsDataToTheSinkAndAsksAgainWhenShort) {
  BoardHarness b;
  sim::set_flash_sink(flash_sink);
  g_flash = {};
  for (uint8_t code : {0x15, 0x25, 0x45}) {
    ASSERT_EQ(b.out(flash_hdr(code, 0x12345, 5, 7)), 24);
    EXPECT_EQ(b.status(), 0xAA);
    ASSERT_EQ(b.out(data_pkt({1, 2, 3, 4, 5})), 9);
    EXPECT_EQ(b.status(), 0xBA);
  }
  EXPECT_EQ(g_flash.calls, 3);
  EXPECT_EQ(g_flash.addr, 0x12345u);
  EXPECT_EQ(g_flash.flag, 7);
  EXPECT_EQ(g_flash.data, (Bytes{1, 2, 3, 4, 5}));
  // Fewer bytes than announced: "data missing", and the command must be sent again.
  ASSERT_EQ(b.out(flash_hdr(0x25, 0, 8, 0)), 24);
  EXPECT_EQ(b.status(), 0xAA);
  ASSERT_EQ(b.out(data_pkt({1, 2, 3})), 7);
  EXPECT_EQ(b.status(), 0xAC);
  EXPECT_EQ(g_flash.calls, 3);
  sim::set_flash_sink(nullptr);
}

TEST(Adapter, OversizedStatusReadAndShortBuffer) {
  BoardHarness b;
  ASSERT_EQ(b.out(read_hdr(0x14, i2c_addr(0), 4)), 27);
  EXPECT_EQ(b.status(), 0xAA);
  int rc = 0;
  b.in(8, rc);   // the response does not fit: the transfer overflows, as with real USB
  EXPECT_EQ(rc, -EOVERFLOW);
  // A host buffer larger than the packet gets a short transfer.
  b.i2c_write(0x10, 0x55);
  ASSERT_EQ(b.out(config_hdr(0x21, 37, 0)), 24);
  b.in(64, rc);
  EXPECT_EQ(rc, 1);
}
