// The `spi` command run as a user runs it: the tool on the simulated board, its output
// compared byte for byte, the flash image checked in the board's state directory.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "run_tool.h"

namespace {

const std::string kOver = "SPI Flash CMD Over\n";
const std::string kOk = kOver + "Success!!\n";

// One board (state directory and working directory) used by several runs of the tool.
class Bench {
 public:
  Bench() : cwd_(make_temp_dir("kivspi")) {}

  // Runs the lines piped in; returns what follows the start-up text.
  std::string run(const std::string &lines, std::vector<std::pair<std::string, std::string>> env = {},
                  std::string *err = nullptr) {
    ToolRun r;
    r.input = lines;
    r.cwd = cwd_;
    r.env = std::move(env);
    ToolResult res = run_tool(r);
    EXPECT_FALSE(res.timedOut) << lines;
    EXPECT_EQ(res.status, 0) << lines;
    if (err) *err = res.err;
    size_t at = res.out.find(kSdkLine);
    return at == std::string::npos ? res.out : res.out.substr(at + std::string(kSdkLine).size());
  }

  std::string flash() const { return read_file(cwd_ + "/sim/flash.bin"); }
  std::string path(const std::string &name) const { return cwd_ + "/" + name; }
  const std::string &cwd() const { return cwd_; }
  void put(const std::string &name, const std::string &content) const { write_file(path(name), content); }

 private:
  std::string cwd_;
};

std::string pattern(size_t n, unsigned seed) {
  std::string s(n, '\0');
  uint32_t x = seed * 2654435761u + 1;
  for (auto &c : s) {
    x = x * 1103515245u + 12345u;
    c = (char)(x >> 16);
  }
  return s;
}

// Erase messages carry a source line number; tests compare them without it.
std::string norm(const std::string &text) {
  const std::string tag = "[spi_flash_erase-";
  std::string out;
  size_t from = 0;
  for (size_t at = text.find(tag); at != std::string::npos; at = text.find(tag, from)) {
    size_t end = text.find(']', at);
    if (end == std::string::npos) break;
    out.append(text, from, at - from).append(tag).append("N");
    from = end;
  }
  return out.append(text, from, std::string::npos);
}

size_t count(const std::string &text, const std::string &what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

TEST(SpiCommand, WriteByteOrderPageSplitAndReadLayout) {
  Bench b;
  std::string out = b.run(
      "spi write 0xFF 0x11223344 4\n"
      "spi write 0x200 0x11223344 2\n"
      "spi read 0xF8 12\n"
      "spi read 0x200 3\n"
      "spi write 0x300 1 5\n");
  EXPECT_EQ(out, kOk + kOk +
                     "\nRead SPI Flash: \n0000f8: ff ff ff ff ff ff ff 44 33 22 11 ff \n" + kOk +
                     "\nRead SPI Flash: \n000200: 44 33 ff \n" + kOk +
                     "length should not be more than 4 bytes!\n" + kOk);
  std::string img = b.flash();
  ASSERT_EQ(img.size(), 4u << 20);
  EXPECT_EQ(img.substr(0xFF, 5), std::string("\x44\x33\x22\x11\xFF", 5));
  EXPECT_EQ(img.substr(0x300, 1), "\xFF");

  out = b.run("spi read 0 2048\nspi read 0x10 2047\n");
  const std::string refused = "length should not be bigger than 2048 bytes!\n" + kOk;
  ASSERT_EQ(out.substr(0, refused.size()), refused);
  std::string dump = out.substr(refused.size());
  EXPECT_EQ(dump.rfind("\nRead SPI Flash: \n000010: ", 0), 0u);
  EXPECT_EQ(count(dump, "\n0"), 128u);                        // 127 lines of 16, one of 15
  EXPECT_EQ(count(dump, "ff "), 2047u - 6);   // 0xFF-0x102 and 0x200-0x201 were written
  EXPECT_NE(dump.find("\n0000f0: ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff 44 \n"), std::string::npos);
  EXPECT_NE(dump.find("\n000800: ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff \n" + kOk), std::string::npos);
}

TEST(SpiCommand, EraseRangesAndChipErase) {
  Bench b;
  b.run("spi write 0x2000 0 4\nspi write 0x3000 0 4\nspi write 0x10000 0 4\nspi write 0x20000 0 4\n");
  std::string out = b.run("spi erase sector 3 2\n");
  EXPECT_EQ(out, kOk);
  EXPECT_EQ(b.flash().substr(0x2000, 1), std::string(1, '\0'));

  out = b.run("spi erase sector 2 3\nspi erase block 1 1\n");
  EXPECT_EQ(count(out, "]-info-: Sector Erase 2\n"), 1u) << out;
  EXPECT_EQ(count(out, "]-info-: Sector Erase 3\n"), 1u) << out;
  EXPECT_EQ(count(out, "]-info-: Block64K Erase 1\n"), 1u) << out;
  EXPECT_EQ(count(out, kOk), 2u);
  std::string img = b.flash();
  EXPECT_EQ(img.substr(0x2000, 1), "\xFF");
  EXPECT_EQ(img.substr(0x3000, 1), "\xFF");
  EXPECT_EQ(img.substr(0x10000, 1), "\xFF");
  EXPECT_EQ(img.substr(0x20000, 1), std::string(1, '\0'));

  out = b.run("spi erase all\n");
  EXPECT_NE(out.find("]-info-: Chip Erase... ...\n" + kOk), std::string::npos) << out;
  EXPECT_EQ(b.flash(), std::string(4u << 20, '\xFF'));
}

TEST(SpiCommand, StatusRegistersProtectionAndLatch) {
  Bench b;
  std::string out = b.run(
      "spi rdid\n"
      "spi wrsr 1 0x9c\n"
      "spi rdsr\n"
      "spi write 0x10 0xA5 1\n"
      "spi rdsr\n"
      "spi wrsr 2 0 2\n"
      "spi rdcr\n"
      "spi wren\n"
      "spi rdsr\n"
      "spi wrdi\n"
      "spi rdsr\n"
      "spi wrsr 1 0x0c\n"
      "spi erase sector 0 0\n"
      "spi read 0x10 1\n"
      "spi rdsr\n");
  EXPECT_EQ(norm(out), "manfacturer ID ef deviceID0 40 deviceID1 16\n" + kOk + kOk +
                     "the status register = 0x9c\n" + kOk +
                     kOk +   // the write clears the protection first
                     "the status register = 0x0\n" + kOk + kOk + "the control register1 = 0x2\n" + kOk + kOk +
                     "the status register = 0x2\n" + kOk + kOk + "the status register = 0x0\n" + kOk + kOk +
                     "[spi_flash_erase-N]-info-: Sector Erase 0\n" + kOk + "\nRead SPI Flash: \n000010: ff \n" + kOk + "the status register = 0x0\n" + kOk);
  EXPECT_EQ(b.flash().substr(0x10, 1), "\xFF");
}

TEST(SpiCommand, SettingsAndTheirRefusals) {
  Bench b;
  std::string out = b.run(
      "spi setspd 25\n"
      "spi setch 3\n"
      "spi setspd 50\n"
      "spi setch 2\n"
      "spi getch\n"
      "spi getspd\n"
      "spi setsysdly 0x123\n"
      "spi getsysdly\n"
      "spi auto\n");
  // Requested settings wait for an update; every invocation starts the controller afresh
  // (the board boots in mode 0), which also brings the sample delay back to 15.
  EXPECT_EQ(out, "please set 12, 33, 50, 75, 100\n" + kOk + "please set 1, 2, 4\n" + kOk + kOk + kOk +
                     "SPIC channel = 1\n" + kOk + "SPIC clock = 12\n" + kOk + kOk + "spi_sysDelay = 15\n" + kOk +
                     "spi auto: not supported\n" + kOk);
}

TEST(SpiCommand, UpdateOddLengthThenVerifyDumpAndMismatchReports) {
  Bench b;
  std::string image = pattern(70000 + 77, 1);
  image[0x1234] = 0x5A;
  b.put("img.bin", image);
  std::string err;
  std::string out = b.run("spi update img.bin\n", {}, &err);
  EXPECT_EQ(err, "");   // no progress bar when stderr is not a terminal
  EXPECT_NE(out.find("File:img.bin\tSize:70077 Bytes\r\nLast modified time:"), std::string::npos) << out;
  EXPECT_NE(out.find("\r\nlast access time:"), std::string::npos);
  EXPECT_NE(out.find("\r\nlast status change time:"), std::string::npos);
  EXPECT_NE(out.find("g_SpiCH=1, spic_clk=12\n"), std::string::npos);
  EXPECT_NE(out.find("Block64K Erase 0\n"), std::string::npos);
  EXPECT_NE(out.find("Sector Erase 17\n"), std::string::npos);
  EXPECT_EQ(out.find("Sector Erase 18\n"), std::string::npos);
  EXPECT_NE(out.find("Image Length 70077\nMatched: Compare Image Length 70077\n" + kOk), std::string::npos) << out;
  std::string img = b.flash();
  EXPECT_EQ(img.substr(0, image.size()), image);
  EXPECT_EQ(img.substr(image.size(), 16), std::string(16, '\xFF'));

  std::string bad = image;
  bad[0x1234] = (char)0xA5;
  b.put("bad.bin", bad);
  out = b.run(
      "spi verify img.bin\n"
      "spi verify bad.bin\n"
      "spi verifywithbase img.bin 0x100 0x100 1000\n"
      "spi verifywithbase bad.bin 0x1000 0x1000 0x1000\n"
      "spi verifywithbase img.bin 0 0x10 64\n"
      "spi verify nofile.bin\n");
  EXPECT_EQ(out, "Matched: Compare Image Length 70077\n" + kOk + "Image not match between 0x001200 ~ 0x001300 !\n" +
                     kOk + "Matched: Compare Image Length 1000\n" + kOk +
                     "Image not match between 0x001200 ~ 0x001300 !\n" + kOk +
                     "Image not match between 0x000010 ~ 0x000050 !\n" + kOk + "FILE nofile.bin open fail!\n" + kOk);

  out = b.run("spi dumptobin 0x100 5000\n", {}, &err);
  EXPECT_EQ(out, kOk);
  EXPECT_EQ(err, "");
  EXPECT_EQ(read_file(b.path("flash_copy.bin")), image.substr(0x100, 5000));
  out = b.run("spi dumptobin 0 0x100001\n");
  EXPECT_EQ(out, kOk);
  EXPECT_EQ(read_file(b.path("flash_copy.bin")), "");

  // Programming over data that was not erased shows in the check that follows.
  out = b.run("spi pgwithbase bad.bin 0x1000 0x1000 0x400\n");
  EXPECT_NE(out.find("File:bad.bin\tSize:70077 Bytes\r\n"), std::string::npos);
  EXPECT_NE(out.find("Image Length 1024\nImage not match between 0x001200 ~ 0x001300 !\n"
                     "First difference at 0x001234: file 0xa5, flash 0x00 (1 of 256 bytes differ)\n" + kOk),
            std::string::npos)
      << out;
  out = b.run("spi erase sector 2 2\nspi pgwithbase bad.bin 0x10 0x2010 300\n");
  EXPECT_NE(out.find("Image Length 300\nMatched: Compare Image Length 300\n" + kOk), std::string::npos) << out;
  img = b.flash();
  EXPECT_EQ(img.substr(0x2010, 300), bad.substr(0x10, 300));
  EXPECT_EQ(img.substr(0x2000, 16), std::string(16, '\xFF'));
  EXPECT_EQ(img.substr(0x2010 + 300, 1), "\xFF");

  out = b.run("spi update missing.bin\nspi pgwithbase missing.bin 0 0 1\nspi pg0861flash img.bin 1 1\n");
  EXPECT_EQ(out, "Failed to access file: -1\r\n" + kOk + "Failed to access file: -1\r\n" + kOk +
                     "spi pg0861flash: not supported\n" + kOk);
}

TEST(SpiCommand, UpdatecfgProgramsTheConfigurationAreaWithProgressLines) {
  Bench b;
  const std::string file = pattern(0x6000 + 0x2000 + 0x400, 2);
  b.put("fw_config.bin", file);
  std::string out = b.run("spi updatecfg fw_config.bin\n");
  std::string expected;
  for (int i = 1; i <= 32; ++i) {
    char line[40];
    snprintf(line, sizeof line, "\nupdate config complete: %02d", i);
    expected += line;
  }
  expected += "Image Length 8448\n" + kOk;
  ASSERT_GE(out.size(), expected.size());
  EXPECT_EQ(out.substr(out.size() - expected.size()), expected);
  EXPECT_EQ(count(out, "]-info-: Sector Erase 6\n"), 1u);
  EXPECT_EQ(count(out, "]-info-: Sector Erase 7\n"), 1u);
  std::string img = b.flash();
  EXPECT_EQ(img.substr(0x6000, 0x2100), file.substr(0x6000, 0x2100));
  EXPECT_EQ(img.substr(0, 0x100), std::string(0x100, '\xFF'));   // nothing lands at flash 0

  // A short file: the pass that finds the end still reports.
  b.put("short.bin", pattern(0x6000 + 0x300, 3));
  out = b.run("spi updatecfg short.bin\nspi updatecfg none.bin\n");
  EXPECT_NE(out.find("\nupdate config complete: 01\nupdate config complete: 02\nupdate config complete: 03"
                     "Image Length 768\n" + kOk),
            std::string::npos)
      << out;
  EXPECT_NE(out.find("FILE none.bin open fail!\n" + kOk), std::string::npos) << out;
  // Plain reads afterwards see flash addresses unshifted.
  out = b.run("spi read 0x6000 4\n");
  EXPECT_NE(out.find("006000: "), std::string::npos);
}

TEST(SpiCommand, CalibrationFindsADelayOrFailsAndUpdateStopsAtOnce) {
  Bench b;
  std::string out = b.run("spi cal\nspi cal\n", {{"KIVTOOL_SIM_FLASH_DLY_MIN", "20"}, {"KIVTOOL_SIM_FLASH_DLY_MAX", "26"}});
  // First run writes the pattern (erasing its sector), the second finds it in place.
  EXPECT_EQ(count(out, "Sector Erase 64\n"), 1u) << out;
  EXPECT_EQ(count(out, "spi_sysDelay = 23\n" + kOk), 2u) << out;

  const std::vector<std::pair<std::string, std::string>> broken = {{"KIVTOOL_SIM_FLASH_DLY_MIN", "40"},
                                                                   {"KIVTOOL_SIM_FLASH_DLY_MAX", "50"}};
  out = b.run("spi cal\n", broken);
  EXPECT_NE(out.find("SPIC  Calibration FAILED\n" + kOk), std::string::npos) << out;

  b.put("img.bin", pattern(600, 4));
  out = b.run("spi update img.bin\nspi rdid\n", broken);
  // The update returns at once: no closing line, no release (the next command still gets in).
  EXPECT_NE(out.find("SPIC  Calibration FAILED\nErrno : -1\nmanfacturer ID ef"), std::string::npos) << out;
  EXPECT_EQ(out.find("Image Length"), std::string::npos);
}

TEST(SpiCommand, FlashHeldByAnotherMaster) {
  Bench b;
  b.put("img.bin", pattern(64, 6));
  // An update that fails calibration returns without giving the flash back.
  b.run("spi update img.bin\n", {{"KIVTOOL_SIM_FLASH_DLY_MIN", "40"}, {"KIVTOOL_SIM_FLASH_DLY_MAX", "50"}});
  std::string err;
  std::string out = b.run("spi rdid\n", {{"KIVTOOL_SIM_FLASH_OWNED", "1"}}, &err);
  EXPECT_EQ(out, kOk);
  EXPECT_NE(err.find("could not own the flash (code -11)"), std::string::npos) << err;
  // Once the other master lets go, the flash is ours again.
  out = b.run("spi rdid\n");
  EXPECT_EQ(out, "manfacturer ID ef deviceID0 40 deviceID1 16\n" + kOk);
}

TEST(SpiCommand, AdapterLostHalfwayThroughAnUpdate) {
  Bench b;
  b.put("img.bin", pattern(256 * 1024, 7));
  std::string out = b.run("spi update img.bin\n", {{"KIVTOOL_SIM_FAULTS", "unplug@20000"}});
  // The update stops at the first failed access, says how far it got, and the handler
  // reports the transport's code.
  size_t at = out.find("Image Length ");
  ASSERT_NE(at, std::string::npos) << out;
  EXPECT_LT(std::stoul(out.substr(at + 13)), 256u * 1024);
  EXPECT_EQ(out.find("Matched"), std::string::npos);
  EXPECT_NE(out.find("SPI Flash CMD Over\nErrno : 8\n"), std::string::npos) << out;
}

// Runs one command with stdout on a pipe and stderr on a pseudo-terminal.
ToolResult run_with_terminal_stderr(const std::string &cwd, const std::vector<std::string> &args) {
  ToolResult res;
  int master = -1, slave = -1, out[2];
  if (openpty(&master, &slave, nullptr, nullptr, nullptr) != 0 || pipe(out) != 0) return res;
  pid_t pid = fork();
  if (pid == 0) {
    int nul = open("/dev/null", O_RDONLY);
    dup2(nul, 0);
    dup2(out[1], 1);
    dup2(slave, 2);
    for (int fd : {nul, out[0], out[1], slave, master}) close(fd);
    if (chdir(cwd.c_str()) != 0) _exit(126);
    setenv("KIVTOOL_SIM", (cwd + "/sim").c_str(), 1);
    std::vector<char *> argv = {const_cast<char *>(KIVTOOL_PATH)};
    for (const auto &a : args) argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    execv(KIVTOOL_PATH, argv.data());
    _exit(127);
  }
  close(slave);
  close(out[1]);
  std::array<char, 4096> buf;
  bool outOpen = true, errOpen = true;
  while (outOpen || errOpen) {
    pollfd fds[2] = {{out[0], POLLIN, 0}, {master, POLLIN, 0}};
    if (poll(fds, 2, 20000) <= 0) {
      res.timedOut = true;
      kill(pid, SIGKILL);
      break;
    }
    if (outOpen && fds[0].revents) {
      ssize_t n = read(out[0], buf.data(), buf.size());
      if (n > 0) res.out.append(buf.data(), (size_t)n);
      else outOpen = false;
    }
    if (errOpen && fds[1].revents) {
      ssize_t n = read(master, buf.data(), buf.size());   // EIO once the child is gone
      if (n > 0) res.err.append(buf.data(), (size_t)n);
      else errOpen = false;
    }
  }
  close(out[0]);
  close(master);
  int status = 0;
  waitpid(pid, &status, 0);
  res.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return res;
}

TEST(SpiCommand, ProgressBarOnlyWhenStderrIsATerminal) {
  Bench b;
  b.put("img.bin", pattern(200000, 5));
  b.run("spi update img.bin\n");
  ToolRun plain;
  plain.cwd = b.cwd();
  plain.args = {"spi", "verify", "img.bin"};
  ToolResult piped = run_tool(plain);
  ToolResult tty = run_with_terminal_stderr(b.cwd(), plain.args);
  ASSERT_FALSE(tty.timedOut);
  EXPECT_EQ(piped.err, "");
  EXPECT_EQ(tty.out, piped.out);
  EXPECT_NE(tty.out.find("Matched: Compare Image Length 200000\n"), std::string::npos) << tty.out;
  EXPECT_NE(tty.err.find("verify"), std::string::npos) << tty.err;
  EXPECT_NE(tty.err.find("100%"), std::string::npos) << tty.err;
}

}  // namespace
