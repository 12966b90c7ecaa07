// The simulated chip under the tool's own access layer: page decoding, the global window,
// indirect access, the generation register, the SMI indirect scheme, MDIO devices and
// state that survives detaching, damage, SIGKILL and the end of a tool run.
#include <gtest/gtest.h>

#include <poll.h>
#include <sys/inotify.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "access/access.h"
#include "access/usbio.h"
#include "board.h"
#include "tool_output.h"
#include "sim/sim.h"
#include "sim/sim_board.h"
#include "sim/sim_chip.h"

namespace {

// A board attached in `dir` with the host connected over I2C (or SPI, SMI on request).
struct Board {
  std::string dir;
  explicit Board(std::string d = make_temp_dir("kivsim")) : dir(std::move(d)) { attach(); }
  ~Board() {
    detach();
    access_if_set(0);
  }
  void attach() {
    board_attach(dir);
    ASSERT_NE(usbio_handle, nullptr);
  }
  void detach() { board_detach(); }
  uint32_t rd(uint32_t a) {
    uint32_t v = 0xDEADDEAD;
    EXPECT_EQ(reg_read(1, a, &v), 0) << std::hex << a;
    return v;
  }
  void wr(uint32_t a, uint32_t v) { EXPECT_EQ(reg_write(1, a, v), 0) << std::hex << a; }
};

}  // namespace

TEST(Chip, PagesWindowGenerationRegisterAndIndirectAccess) {
  Board b;
  EXPECT_EQ(b.rd(0xFFFF01), 0x4Au);  // reset page: switch core
  b.wr(0x000010, 0x1111);
  b.wr(0xFFFF40, 0xCAFE);
  b.wr(0xFFFF01, 0x1251);  // only the low byte selects the page
  EXPECT_EQ(b.rd(0xFFFF01), 0x51u);
  EXPECT_EQ(b.rd(0x000010), 0u);  // 0x51000010: another register
  b.wr(0x000010, 0x2222);
  EXPECT_EQ(sim::chip_read(0x4A000010), 0x1111u);
  EXPECT_EQ(sim::chip_read(0x51000010), 0x2222u);
  for (uint32_t page : {0x00u, 0x42u}) {  // the window is the same on every page
    b.wr(0xFFFF01, page);
    EXPECT_EQ(b.rd(0xFFFF40), 0xCAFEu) << page;
  }
  // Generation register: page 0 only, read-only, top nibble 4. (The chip check that reads
  // it, its knob and the page it puts back: ToolRunsShareTheBoard.)
  b.wr(0xFFFF01, 0);
  b.wr(0x103FF0, 0);
  EXPECT_EQ(b.rd(0x103FF0), 0x40000000u);
  b.wr(0xFFFF01, 0x4A);
  EXPECT_EQ(b.rd(0x103FF0), 0u);

  // Indirect access goes through the current page. (The busy knob, counted poll for poll:
  // RegCommand.IndirectAccessAndItsTimeOut.)
  b.wr(0xFFFF15, 0x600DF00D);  // write: data, then target | 0x3F000000
  b.wr(0xFFFF11, 0x3F180048);
  EXPECT_EQ(b.rd(0xFFFF11), 0xBF180048u);  // bit 31: done at once
  EXPECT_EQ(sim::chip_read(0x4A180048), 0x600DF00Du);
  b.wr(0xFFFF01, 0x42);  // read: target | 0x3D000000, through the current page
  sim::chip_write(0x42000200, 0xABCD);
  b.wr(0xFFFF11, 0x3D000200);
  EXPECT_EQ(b.rd(0xFFFF15), 0xABCDu);
  b.wr(0xFFFF15, 0x3F000300);  // aimed at the control register itself: no second access
  b.wr(0xFFFF11, 0x3FFFFF11);
  EXPECT_EQ(sim::chip_read(0x42000300), 0u);
}

TEST(Chip, TransportsMeetInTheSameRegistersAndMdioDevices) {
  // I2C carries values least significant byte first, SPI most significant first: a value
  // written over one transport reads back the same over the other and in the chip.
  Board b;
  b.wr(0x180048, 0x11223344);
  ASSERT_EQ(usbio_use_spi(), 0);
  EXPECT_EQ(b.rd(0x180048), 0x11223344u);
  b.wr(0x180050, 0xA1B2C3D4);
  EXPECT_EQ(sim::chip_read(0x4A180050), 0xA1B2C3D4u);
  ASSERT_EQ(usbio_use_i2c(), 0);
  EXPECT_EQ(b.rd(0x180050), 0xA1B2C3D4u);
  // The SMI indirect scheme reaches the same registers.
  ASSERT_EQ(usbio_use_smi(), 0);
  b.wr(0x180048, 0x12345678);
  EXPECT_EQ(sim::chip_read(0x4A180048), 0x12345678u);
  sim::chip_write(0x4A000404, 0xA5A55A5A);
  EXPECT_EQ(b.rd(0x000404), 0xA5A55A5Au);
  {
    ScopedEnv busy({{"KIVTOOL_SIM_SMI_BUSY", "3"}});  // busy for three polls: still fine
    EXPECT_EQ(b.rd(0x000404), 0xA5A55A5Au);
  }
  {
    ScopedEnv never({{"KIVTOOL_SIM_SMI_BUSY", "-1"}});  // busy for ever: the host gives up
    EXPECT_EQ(reg_write(1, 0x10, 1), 15);
  }
  // MDIO addresses 0-7 are plain clause-22 devices; others float high; five address bits.
  for (uint8_t phy = 0; phy < 8; ++phy) EXPECT_EQ(hx5200_usb_smi_write(phy, 31, uint16_t(0x100 + phy)), 0);
  uint16_t d = 0;
  EXPECT_EQ(hx5200_usb_smi_read(3, 31, &d), 0);
  EXPECT_EQ(d, 0x103);
  EXPECT_EQ(sim::mdio_read(35, 31), 0x103);
  EXPECT_EQ(sim::mdio_read(0, 30), 0);
  sim::mdio_write(9, 0, 0x1234);
  EXPECT_EQ(hx5200_usb_smi_read(9, 0, &d), 0);
  EXPECT_EQ(d, 0xFFFF);
}

TEST(Chip, StateSurvivesDetachDamageAndSigkill) {
  const std::string dir = make_temp_dir("kivsim") + "/a/b";  // created with its parents
  {
    Board b(dir);
    b.wr(0x000020, 0xFEEDC0DE);
    b.wr(0xFFFF01, 0x42);
    sim::mdio_write(5, 7, 0x7777);
    b.detach();
    b.attach();
    EXPECT_EQ(b.rd(0xFFFF01), 0x42u);
    EXPECT_EQ(sim::chip_read(0x4A000020), 0xFEEDC0DEu);
    EXPECT_EQ(sim::mdio_read(5, 7), 0x7777);
    EXPECT_STREQ(sim::state_dir(), dir.c_str());
  }
  const std::string damaged = make_temp_dir("kivsim");
  write_file(damaged + "/regs.bin", "not a register store");
  testing::internal::CaptureStderr();
  {
    Board b(damaged);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("damaged"), std::string::npos);
    EXPECT_EQ(b.rd(0xFFFF01), 0x4Au);
  }
  write_file(damaged + "/file", "x");
  EXPECT_EQ(sim_attach((damaged + "/file").c_str()), nullptr);
  EXPECT_EQ(sim_attach(""), nullptr);
  EXPECT_EQ(sim::state_dir(), nullptr);

  // A run killed outright keeps every completed write: the store is a shared mapping. Here
  // it is killed while the store grows (stopped while the copy exists, so in the middle of
  // it); the next attach removes the copy and finds every insert that was done.
  const std::string killed = make_temp_dir("kivsim"), copy = killed + "/regs.bin.new";
  const int watch = inotify_init1(IN_CLOEXEC);
  ASSERT_GE(inotify_add_watch(watch, killed.c_str(), IN_CREATE), 0);
  const pid_t pid = fork();
  if (pid == 0) {
    if (!sim_attach(killed.c_str())) _exit(3);
    for (uint32_t i = 0; i < (1u << 21); ++i) sim::store_set(sim::key(9, i), ~i);
    _exit(4);
  }
  bool caught = false;
  pollfd pfd{watch, POLLIN, 0};
  for (int growths = 0; !caught && poll(&pfd, 1, 10000) == 1;) {
    alignas(inotify_event) char events[4096];
    if (read(watch, events, sizeof events) <= 0 || ++growths < 5) continue;   // small tables copy at once
    kill(pid, SIGSTOP);
    caught = access(copy.c_str(), F_OK) == 0;
    kill(pid, caught ? SIGKILL : SIGCONT);
  }
  close(watch);
  kill(pid, SIGKILL);
  int st = 0;
  ASSERT_TRUE(waitpid(pid, &st, 0) == pid && caught && WIFSIGNALED(st) && WTERMSIG(st) == SIGKILL);
  Board b(killed);
  EXPECT_NE(access(copy.c_str(), F_OK), 0);
  uint32_t done = 0;
  while (sim::store_get(sim::key(9, done)) == ~done) ++done;
  EXPECT_GE(done, (1u << 14) - 16);            // the fifth growth: 16384 entries and more
  EXPECT_LT(sim::store_count() - done, 16u);   // nothing after the gap: the chip's own registers
}

// The board under the real tool: the page carried from one run to the next (the chip check
// at start-up puts it back; registers: see ConcurrentRunsLoseNoWrite), the generation knob
// and an unplugged adapter at start-up.
TEST(Chip, ToolRunsShareTheBoard) {
  ToolRun r;
  r.cwd = make_temp_dir("kivsim");
  const auto run = [&](std::vector<std::string> args, EnvVars env = {}) {
    r.args = std::move(args);
    r.env = std::move(env);
    return tool_output(r);
  };
  run({"reg", "chgpage", "cpu"});
  EXPECT_EQ(run({"reg", "chgpage", "current"}), "Current Page: 0x42\r\nSuccess!!\n");
  EXPECT_EQ(run({"reg", "get", "0x0"}, {{"KIVTOOL_SIM_CHIP_GEN", "3"}}),
            "This KIV build is not match with current chip version\n[0x0000]=0x0000\nSuccess!!\n");
  // The adapter leaves at its first command: the bring-up and the chip check fail, the
  // write finds no adapter, and nothing reaches the board.
  EXPECT_EQ(run({"reg", "set", "0x40", "0x1"}, {{"KIVTOOL_SIM_FAULTS", "unplug@1"}}),
            "\033[1;31;40m kivshell: USBIO device IIC Configure error. \033[0m \n"
            "This KIV build is not match with current chip version\n"
            "HX5200_USB_I2C_WRITE_NEW_1482 \033[1;31;40m kivshell: USBIO device Not Found. Only be available for "
            "offline test! \033[0m \nErrno : -2\n");
  EXPECT_EQ(run({"reg", "get", "0x40"}), "[0x0040]=0x0000\nSuccess!!\n");
}

// Two runs on one board at once, each writing thousands of registers of its own (the store
// grows twice under the other), then a third run reads every one back. The board stays on
// page 0, so neither run's start-up (which visits page 0) moves the other's writes.
TEST(Chip, ConcurrentRunsLoseNoWrite) {
  std::array<ToolRun, 2> runs;
  runs[0].cwd = runs[1].cwd = make_temp_dir("kivsim");
  runs[0].args = {"reg", "chgpage", "0"};
  ASSERT_EQ(run_tool(runs[0]).status, 0);
  runs[0].args.clear();
  std::string reads, expected;
  char line[64];
  for (uint32_t p = 0; p < 2; ++p) {
    for (uint32_t i = 0, addr = 0x200000 + (p << 16); i < 3000; ++i, addr += 4) {
      const uint32_t value = p << 16 | (i + 1);
      runs[p].input.append(line, std::snprintf(line, sizeof line, "reg set 0x%X 0x%X\n", addr, value));
      reads.append(line, std::snprintf(line, sizeof line, "reg get 0x%X\n", addr));
      expected.append(line, std::snprintf(line, sizeof line, "[0x%4.4X]=0x%4.4X\nSuccess!!\n", addr, value));
    }
  }
  std::array<ToolResult, 2> res;
  std::thread other([&] { res[1] = run_tool(runs[1]); });
  res[0] = run_tool(runs[0]);
  other.join();
  for (const ToolResult &r : res) EXPECT_TRUE(!r.timedOut && r.status == 0 && r.err.empty()) << r.err;
  runs[0].input = reads;
  EXPECT_TRUE(run_tool(runs[0]).out.ends_with(expected));
}
