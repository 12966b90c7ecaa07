// The chip behind the adapter: page decoding, the global window, indirect access, the
// generation register, MDIO devices, persistence and the write-width notice.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <csignal>
#include <unistd.h>

#include "access/access.h"
#include "board_harness.h"
#include "sim/sim_chip.h"

TEST(Chip, PageRegisterSelectsTheAddressSpace) {
  BoardHarness b;
  EXPECT_EQ(b.i2c_read(0xFFFF01), 0x4Au);   // reset page: switch core
  b.i2c_write(0x000010, 0x1111);            // lands at 0x4A000010
  b.i2c_write(0xFFFF01, 0x51);
  EXPECT_EQ(b.i2c_read(0xFFFF01), 0x51u);
  EXPECT_EQ(b.i2c_read(0x000010), 0u);      // 0x51000010: another register
  b.i2c_write(0x000010, 0x2222);
  b.i2c_write(0xFFFF01, 0x4A);
  EXPECT_EQ(b.i2c_read(0x000010), 0x1111u);
  EXPECT_EQ(sim::chip_read(0x4A000010), 0x1111u);
  EXPECT_EQ(sim::chip_read(0x51000010), 0x2222u);
  // Only the low byte of the written value selects the page.
  b.i2c_write(0xFFFF01, 0x1242);
  EXPECT_EQ(b.i2c_read(0xFFFF01), 0x42u);
}

TEST(Chip, WindowIsGlobalAcrossPages) {
  BoardHarness b;
  b.i2c_write(0xFFFF40, 0xCAFE);
  for (uint32_t page : {0x00u, 0x42u, 0x51u}) {
    b.i2c_write(0xFFFF01, page);
    EXPECT_EQ(b.i2c_read(0xFFFF40), 0xCAFEu) << page;
    EXPECT_EQ(b.i2c_read(0xFFFF01), page);
  }
}

TEST(Chip, GenerationRegisterOnPageZero) {
  BoardHarness b;
  b.i2c_write(0xFFFF01, 0);
  EXPECT_EQ(b.i2c_read(0x103FF0) >> 28, 4u);
  b.i2c_write(0x103FF0, 0);   // read-only
  EXPECT_EQ(b.i2c_read(0x103FF0) >> 28, 4u);
  b.i2c_write(0xFFFF01, 0x4A);
  EXPECT_EQ(b.i2c_read(0x103FF0), 0u);   // on another page it is plain storage
  EnvVar gen("KIVTOOL_SIM_CHIP_GEN", "3");
  EXPECT_EQ(sim::chip_read(0x00103FF0) >> 28, 3u);
}

TEST(Chip, IndirectAccessCompletesAtOnceThroughTheCurrentPage) {
  BoardHarness b;
  // Write: data to 0xFFFF15, then target | 0x3F000000 to 0xFFFF11.
  b.i2c_write(0xFFFF15, 0x600DF00D);
  b.i2c_write(0xFFFF11, 0x3F000000 | 0x180048);
  EXPECT_EQ(b.i2c_read(0xFFFF11), 0xBF180048u);   // bit 31: done
  EXPECT_EQ(sim::chip_read(0x4A180048), 0x600DF00Du);
  // Read: target | 0x3D000000, then the data register holds the value.
  sim::chip_write(0x4A000200, 0x12345678);
  b.i2c_write(0xFFFF11, 0x3D000200);
  EXPECT_NE(b.i2c_read(0xFFFF11) & 0x80000000u, 0u);
  EXPECT_EQ(b.i2c_read(0xFFFF15), 0x12345678u);
  // The target follows the page register.
  b.i2c_write(0xFFFF01, 0x42);
  sim::chip_write(0x42000200, 0xABCD);
  b.i2c_write(0xFFFF11, 0x3D000200);
  EXPECT_EQ(b.i2c_read(0xFFFF15), 0xABCDu);
  // An indirect write aimed at the control register itself does not start another access.
  b.i2c_write(0xFFFF15, 0x3F000300);
  b.i2c_write(0xFFFF11, 0x3FFFFF11);
  EXPECT_EQ(sim::chip_read(0x42000300), 0u);
}

TEST(Chip, IndirectBusyKnob) {
  EnvVar busy("KIVTOOL_SIM_INDIRECT_BUSY", "2");
  BoardHarness b;
  b.i2c_write(0xFFFF11, 0x3D000200);
  EXPECT_EQ(b.i2c_read(0xFFFF11) >> 31, 0u);
  EXPECT_EQ(b.i2c_read(0xFFFF11) >> 31, 0u);
  EXPECT_EQ(b.i2c_read(0xFFFF11) >> 31, 1u);
  EnvVar never("KIVTOOL_SIM_INDIRECT_BUSY", "-1");
  b.i2c_write(0xFFFF11, 0x3D000200);
  for (int i = 0; i < 50; ++i) ASSERT_EQ(b.i2c_read(0xFFFF11) >> 31, 0u);
}

TEST(Chip, SmiIndirectSchemeAtAddress24) {
  BoardHarness b;
  // 32-bit write: data low/high, address low, then 0x8100 | address bits 16-23.
  b.smi_write(24, 0, 0x5678);
  b.smi_write(24, 2, 0x1234);
  b.smi_write(24, 4, 0x0048);
  b.smi_write(24, 6, 0x8100 | 0x18);
  EXPECT_EQ(b.smi_read(24, 6) & 0x8000, 0);
  EXPECT_EQ(sim::chip_read(0x4A180048), 0x12345678u);
  // 32-bit read.
  sim::chip_write(0x4A000404, 0xA5A55A5A);
  b.smi_write(24, 4, 0x0404);
  b.smi_write(24, 6, 0x8000);
  EXPECT_EQ(b.smi_read(24, 6) & 0x8000, 0);
  EXPECT_EQ(b.smi_read(24, 0), 0x5A5A);
  EXPECT_EQ(b.smi_read(24, 2), 0xA5A5);
  // Busy knob: the busy bit shows for the given number of polls; -1 for ever.
  EnvVar busy("KIVTOOL_SIM_SMI_BUSY", "1");
  b.smi_write(24, 6, 0x8000);
  EXPECT_EQ(b.smi_read(24, 6) & 0x8000, 0x8000);
  EXPECT_EQ(b.smi_read(24, 6) & 0x8000, 0);
}

TEST(Chip, MdioDevicesAndFloatingAddresses) {
  BoardHarness b;
  for (uint8_t phy = 0; phy < 8; ++phy) sim::mdio_write(phy, 31, (uint16_t)(0x100 + phy));
  for (uint8_t phy = 0; phy < 8; ++phy) EXPECT_EQ(sim::mdio_read(phy, 31), 0x100 + phy);
  EXPECT_EQ(sim::mdio_read(0, 30), 0);
  sim::mdio_write(9, 0, 0x1234);
  EXPECT_EQ(sim::mdio_read(9, 0), 0xFFFF);
  EXPECT_EQ(sim::mdio_read(31, 5), 0xFFFF);
  // Five address bits on the wire: 32 + 3 reaches device 3.
  EXPECT_EQ(sim::mdio_read(35, 31), 0x103);
}

TEST(Chip, StateSurvivesDetachAndReattach) {
  std::string dir = make_temp_dir("kivsim") + "/a/b";   // created with its parents
  {
    BoardHarness b(dir);
    b.i2c_write(0x000020, 0xFEEDC0DE);
    b.i2c_write(0xFFFF01, 0x42);
    b.smi_write(5, 7, 0x7777);
    // Enough keys to make the store grow several times.
    for (uint32_t i = 0; i < 20000; ++i) sim::store_set(((uint64_t)7 << 32) | i, i + 1);
  }
  BoardHarness b(dir);
  EXPECT_EQ(b.i2c_read(0xFFFF01), 0x42u);
  EXPECT_EQ(sim::chip_read(0x4A000020), 0xFEEDC0DEu);
  EXPECT_EQ(b.smi_read(5, 7), 0x7777);
  for (uint32_t i = 0; i < 20000; i += 997) ASSERT_EQ(sim::store_get(((uint64_t)7 << 32) | i), i + 1);
  EXPECT_STREQ(sim::state_dir(), dir.c_str());
}

TEST(Chip, DamagedStateFileStartsFromReset) {
  std::string dir = make_temp_dir("kivsim");
  write_file(dir + "/regs.bin", "not a register store");
  BoardHarness b(dir);
  EXPECT_EQ(b.i2c_read(0xFFFF01), 0x4Au);
  b.i2c_write(0x30, 3);
  b.reattach();
  EXPECT_EQ(b.i2c_read(0x30), 3u);
}

TEST(Chip, UnusableDirectoryIsRefused) {
  std::string dir = make_temp_dir("kivsim");
  write_file(dir + "/file", "x");
  EXPECT_EQ(sim_attach((dir + "/file").c_str()), nullptr);
  EXPECT_EQ(sim_attach(""), nullptr);
  EXPECT_EQ(sim::state_dir(), nullptr);
}

TEST(Chip, WriteWidthNoticeIsConsumedByTheNextWriteOfThatAddress) {
  BoardHarness b;
  EXPECT_EQ(sim::take_write_width(0x51000104), 4u);
  reg_width_notice(0x000104, 1);
  EXPECT_EQ(sim::take_write_width(0x51000200), 4u);   // another address: still pending
  EXPECT_EQ(sim::take_write_width(0x51000104), 1u);
  EXPECT_EQ(sim::take_write_width(0x51000104), 4u);   // consumed
  reg_width_notice(0x104, 2);
  EXPECT_EQ(sim::take_write_width(0x104), 2u);
  reg_width_notice(0x104, 3);                          // not a width: a full word
  EXPECT_EQ(sim::take_write_width(0x104), 4u);
}

// A run killed outright keeps every completed write: the store is a shared mapping.
TEST(Chip, StateSurvivesSigkill) {
  std::string dir = make_temp_dir("kivsim");
  pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    const usb_ops_t *ops = sim_attach(dir.c_str());
    if (!ops) _exit(3);
    sim::chip_write(0x4A000070, 0x70707070);
    sim::mdio_write(1, 2, 0x1212);
    for (uint32_t i = 0; i < 5000; ++i) sim::store_set(((uint64_t)9 << 32) | i, ~i);
    kill(getpid(), SIGKILL);
    _exit(4);
  }
  int st = 0;
  ASSERT_EQ(waitpid(pid, &st, 0), pid);
  ASSERT_TRUE(WIFSIGNALED(st) && WTERMSIG(st) == SIGKILL);
  BoardHarness b(dir);
  EXPECT_EQ(b.i2c_read(0x70), 0x70707070u);
  EXPECT_EQ(b.smi_read(1, 2), 0x1212);
  EXPECT_EQ(sim::store_get(((uint64_t)9 << 32) | 4999), ~4999u);
}
