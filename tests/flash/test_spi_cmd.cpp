// The `spi` command run as a user runs it: the tool on the simulated board, its output
// compared byte for byte, the flash image checked in the board's state directory.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "../shell/terminal.h"
#include "flash_bench.h"

namespace {

const std::string kOver = "SPI Flash CMD Over\n";
const std::string kOk = kOver + "Success!!\n";

// Erase messages carry a source line number, file reports carry times and image summaries
// transfer counts; tests compare them without.
std::string norm(const std::string &text) {
  static const std::regex kLine(R"(\[spi_flash_erase-[0-9]+\])"), kTime(R"(time:[-0-9]+ [:0-9]+)"),
      kXfers(R"([0-9]+ transfers)");
  return std::regex_replace(
      std::regex_replace(std::regex_replace(text, kLine, "[spi_flash_erase-N]"), kTime, "time:T"), kXfers,
      "N transfers");
}
std::string info(const std::string &what) { return "[spi_flash_erase-N]-info-: " + what + "\n"; }
std::string fileHead(const std::string &name, size_t size) {
  return "File:" + name + "\tSize:" + std::to_string(size) +
         " Bytes\r\nLast modified time:T\r\nlast access time:T\r\nlast status change time:T\r\n";
}

// One session, line by line: each command's own output, then the closing line.
TEST(SpiCommand, SubcommandsLineByLine) {
  Bench b;
  const std::vector<std::pair<std::string, std::string>> steps = {
      {"spi write 0xFF 0x11223344 4", ""},   // one byte at 0xFF, three at 0x100
      {"spi write 0x200 0x11223344 2", ""},  // 0x44, then 0x33
      {"spi read 0xF8 12", "\nRead SPI Flash: \n0000f8: ff ff ff ff ff ff ff 44 33 22 11 ff \n"},
      {"spi read 0x200 3", "\nRead SPI Flash: \n000200: 44 33 ff \n"},
      {"spi write 0x300 1 5", "length should not be more than 4 bytes!\n"},
      {"spi read 0 2048", "length should not be bigger than 2048 bytes!\n"},
      {"spi rdid", "manfacturer ID ef deviceID0 40 deviceID1 16\n"},
      {"spi wrsr 1 0x9c", ""}, {"spi rdsr", "the status register = 0x9c\n"},
      {"spi write 0x1010 0xA5 1", ""}, {"spi rdsr", "the status register = 0x0\n"},   // clears the protection first
      {"spi wrsr 2 0 2", ""}, {"spi rdcr", "the control register1 = 0x2\n"},
      {"spi wren", ""}, {"spi rdsr", "the status register = 0x2\n"},
      {"spi wrdi", ""}, {"spi rdsr", "the status register = 0x0\n"},
      {"spi wrsr 1 0x0c", ""}, {"spi read 0x1010 1", "\nRead SPI Flash: \n001010: a5 \n"},   // so does a read
      {"spi rdsr", "the status register = 0x0\n"}, {"spi wrsr 1 0x0c", ""},
      {"spi erase sector 1 1", info("Sector Erase 1")},   // and each erase
      {"spi read 0x1010 1", "\nRead SPI Flash: \n001010: ff \n"},
      {"spi setspd 25", "please set 12, 33, 50, 75, 100\n"}, {"spi setch 3", "please set 1, 2, 4\n"},
      {"spi setspd 50", ""}, {"spi setch 2", ""},
      // Requested settings wait for an update; every invocation starts the controller
      // afresh (the board boots in mode 0), which also brings the sample delay back to 15.
      {"spi getch", "SPIC channel = 1\n"}, {"spi getspd", "SPIC clock = 12\n"},
      {"spi setsysdly 0x123", ""}, {"spi getsysdly", "spi_sysDelay = 15\n"},
      {"spi auto", "spi auto: not supported\n"}, {"spi verify nofile.bin", "FILE nofile.bin open fail!\n"},
      {"spi update missing.bin", "Failed to access file: -1\r\n"},
      {"spi pgwithbase missing.bin 0 0 1", "Failed to access file: -1\r\n"},
      {"spi pg0861flash2 missing.bin x 1", "Failed to access file: -1\r\n"},
      {"spi dumptobin 0 0x100001", ""},
  };
  std::string input, expected;
  for (const auto &[line, text] : steps) {
    input += line + "\n";
    expected += text + kOk;
  }
  EXPECT_EQ(norm(b.run(input)), expected);
  const std::string img = b.flash();
  ASSERT_EQ(img.size(), 4u << 20);
  EXPECT_EQ(img.substr(0xFF, 5), std::string("\x44\x33\x22\x11\xFF", 5));
  EXPECT_EQ(img[0x300], '\xFF');
  EXPECT_EQ(read_file(b.cwd + "/flash_copy.bin"), "");   // created before the length is refused

  std::string dump = b.run("spi read 0x10 2047\n");
  EXPECT_EQ(dump.rfind("\nRead SPI Flash: \n000010: ", 0), 0u);
  EXPECT_EQ(count_of(dump, "\n0"), 128u);        // 127 lines of 16, one of 15
  EXPECT_EQ(count_of(dump, "ff "), 2047u - 6);   // 0xFF-0x102 and 0x200-0x201 were written
  EXPECT_NE(dump.find("\n0000f0: ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff 44 \n"), std::string::npos);
  EXPECT_NE(dump.find("\n000800: ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff \n" + kOk), std::string::npos);
}

TEST(SpiCommand, EraseRangesAndChipErase) {
  Bench b;
  // A range that ends before it starts erases nothing. Numbers are shifted into 32 bits
  // and the flash sees 24 of them: sector 4096 is sector 0.
  const std::string out = b.run("spi write 0 0 1\nspi write 0x2000 0 4\nspi write 0x3000 0 4\nspi write 0x10000 0 4\n"
                                "spi write 0x20000 0 4\nspi erase sector 0x21 0x20\nspi erase sector 2 3\n"
                                "spi erase block 1 1\nspi erase sector 4095 4096\n");
  EXPECT_EQ(norm(out), kOk + kOk + kOk + kOk + kOk + kOk + info("Sector Erase 2") + info("Sector Erase 3") + kOk +
                           info("Block64K Erase 1") + kOk + info("Sector Erase 4095") + info("Sector Erase 4096") + kOk);
  const std::string img = b.flash();
  for (size_t at : {0x0, 0x2000, 0x3000, 0x10000}) EXPECT_EQ(img[at], '\xFF') << at;
  EXPECT_EQ(img[0x20000], '\0');
  EXPECT_EQ(norm(b.run("spi erase all\n")), info("Chip Erase... ...") + kOk);
  EXPECT_EQ(b.flash(), std::string(4u << 20, '\xFF'));
}

TEST(SpiCommand, UpdateOddLengthThenVerifyDumpAndMismatchReports) {
  Bench b;
  std::string image = random_bytes(70000 + 77, 1);
  image[0x1234] = 0x5A;
  b.put("img.bin", image);
  std::string err;
  // Calibration (its pattern sector) first. The erased flash takes the image by programming
  // alone; once most of the 16 sectors read needed writing, the rest are rewritten unread.
  EXPECT_EQ(norm(b.run("spi update img.bin\n", {}, &err)),
            fileHead("img.bin", 70077) + "g_SpiCH=1, spic_clk=12\n" + info("Sector Erase 64") +
                info("Sector Erase 16") + info("Sector Erase 17") +
                "Image Length 70077\nMatched: Compare Image Length 70077\n" + kOk);
  // No progress bar when stderr is not a terminal; the summary goes there.
  EXPECT_EQ(norm(err), "spi: 0 sectors equal, 2 erased (0 blocks of 64 KiB), 274 pages programmed, N transfers "
                       "(most sectors differed: the rest was rewritten unread)\n");
  const std::string img = b.flash();
  EXPECT_EQ(img.substr(0, image.size()), image);
  EXPECT_EQ(img.substr(image.size(), 16), std::string(16, '\xFF'));

  std::string bad = image;
  bad[0x1234] = (char)0xA5;
  b.put("bad.bin", bad);
  const std::string notMatch = "Image not match between 0x001200 ~ 0x001300 !\n" + kOk;
  EXPECT_EQ(b.run("spi verify img.bin\nspi verify bad.bin\nspi verifywithbase img.bin 0x100 0x100 1000\n"
                  "spi verifywithbase bad.bin 0x1000 0x1000 0x1000\nspi verifywithbase img.bin 0 0x10 64\n"),
            "Matched: Compare Image Length 70077\n" + kOk + notMatch + "Matched: Compare Image Length 1000\n" + kOk +
                notMatch + "Image not match between 0x000010 ~ 0x000050 !\n" + kOk);
  EXPECT_EQ(b.run("spi dumptobin 0x100 5000\n", {}, &err), kOk);
  EXPECT_EQ(err, "");
  EXPECT_EQ(read_file(b.cwd + "/flash_copy.bin"), image.substr(0x100, 5000));
  // A dump that cannot be written (here: larger than the files the run may write) says so
  // and fails the line.
  const std::string dump = "cd " + b.cwd + " && (ulimit -f 4; trap '' XFSZ; KIVTOOL_SIM=sim " KIVTOOL_PATH
                           " -e spi dumptobin 0 0x10000 > out); echo $? > code";
  ASSERT_EQ(system(("sh -c " + ::quoted(dump)).c_str()), 0);
  EXPECT_EQ(read_file(b.cwd + "/code"), "1\n");
  EXPECT_EQ(read_file(b.cwd + "/out"),
            std::string(kSdkLine) + "FILE flash_copy.bin write fail: File too large\n" + kOk);

  // The plain full rewrite of pgwithbase programs without erasing: data that was not erased
  // shows in the check that follows.
  EXPECT_EQ(norm(b.run("spi pgwithbase bad.bin 0x1000 0x1000 0x400\n", {{"KIVTOOL_FLASH_FULL", "1"}})),
            fileHead("bad.bin", 70077) +
                "Image Length 1024\nImage not match between 0x001200 ~ 0x001300 !\n"
                "First difference at 0x001234: file 0xa5, flash 0x00 (1 of 256 bytes differ)\n" + kOk);
  const std::string out = b.run("spi erase sector 2 2\nspi pgwithbase bad.bin 0x10 0x2010 300\n", {}, &err);
  EXPECT_TRUE(out.ends_with("Image Length 300\nMatched: Compare Image Length 300\n" + kOk)) << out;
  EXPECT_EQ(norm(err), "spi: 0 sectors equal, 0 erased (0 blocks of 64 KiB), 2 pages programmed, N transfers\n");
  EXPECT_EQ(b.flash()[0x2010 + 300], '\xFF');
  EXPECT_EQ(b.run("spi pg0861flash img.bin 1 1\n"), "g_SpiCH=1, spic_clk=12\nspi pg0861flash: not supported\n" + kOk);
}

// Nothing reaches the flash (no calibration, no erase) unless the whole image was read and
// fits: each refusal follows the file report, and the image stays byte for byte.
TEST(SpiCommand, ImagesThatCannotBeReadWholeOrDoNotFitAreRefusedBeforeTheFirstErase) {
  Bench b;
  const std::string before = random_bytes(4u << 20, 9);
  for (const char *dir : {"/sim", "/dir"}) ASSERT_EQ(mkdir((b.cwd + dir).c_str(), 0755), 0);
  ASSERT_EQ(mkfifo((b.cwd + "/fifo").c_str(), 0644), 0);
  b.put("sim/flash.bin", before);
  b.put("small.bin", random_bytes(5000, 10));
  b.put("empty.bin", "");
  b.put("big.bin", std::string(5u << 20, '\0'));
  b.put("huge.bin", std::string(17u << 20, '\0'));
  const std::string fits = " bytes does not fit the 4096 KiB flash from 0x";
  // Kernel files: /proc/self/mem fails to read at 0 even for root; a sysfs file reports
  // 4096 bytes and gives fewer, as a file truncated while it is read does.
  std::vector<std::pair<std::string, std::string>> cases = {
      {"update dir", "File dir is not a regular file"},
      {"pgwithbase fifo 0 0 16", "File fifo is not a regular file"},
      {"update /proc/self/mem", "File /proc/self/mem: read error after 0 bytes: Input/output error"},
      {"update big.bin", "Image of 5242880" + fits + "000000"},
      {"update huge.bin", "Image of 17825792" + fits + "000000"},
      {"pgwithbase small.bin 0 0x3FF000 5000", "Image of 5000" + fits + "3ff000"},
      {"pgwithbase small.bin 100 0xFFFFFF00 1", "Image of 1" + fits + "ffffff00"},
      // Nothing to write: refused before the calibration (which may erase its sector).
      {"update empty.bin", "File empty.bin is empty"},
      {"pgwithbase small.bin 5000 0 16", "File small.bin: start 0x1388 is at or past its end (5000 bytes)"},
      {"pgwithbase small.bin 0 0 0", "Length 0"},
  };
  const std::string sysfs = "/sys/kernel/mm/transparent_hugepage/enabled";
  if (const size_t n = read_file(sysfs).size(); n > 0 && n < 4096)
    cases.push_back({"update " + sysfs, "File " + sysfs + ": only " + std::to_string(n) +
                                            " of 4096 bytes could be read"});
  std::string input, expected;
  for (const auto &[line, refusal] : cases) {
    input += "spi " + line + "\n";
    expected += refusal + ", nothing written\n" + kOk;
  }
  // Every file a flash command opens must be a regular file (a FIFO would block while the
  // flash is held), checked before any erase; verify commands say why they stopped instead
  // of matching what they could read, and never compare past the end of the flash.
  b.put("past.bin", before + "x");
  b.put("tail.bin", before.substr(0x3FFF00) + "yz");
  ASSERT_EQ(symlink("/dev/null", (b.cwd + "/flash_copy.bin").c_str()), 0);
  std::string err;
  const std::string out = b.run(input +
                                    "spi verify dir\nspi verifywithbase fifo 0 0 16\n"
                                    "spi dumptobin 0 16\nspi verifywithbase /proc/self/mem 0 0 16\n"
                                    "spi verify past.bin\nspi verifywithbase tail.bin 0 0x3fff00 0x200\n"
                                    "spi verifywithbase small.bin 0 0x400000 16\nspi verifywithbase small.bin 0 0x1000000 1\n"
                                    "spi verifywithbase tail.bin 0 0x3fff00 0x100\n",
                                {}, &err);
  const std::string past = "Image goes past the end of the flash at 0x";
  EXPECT_EQ(std::regex_replace(out, std::regex(".*\r\n"), ""),   // the file reports dropped
            expected + "FILE dir open fail!\n" + kOk + "FILE fifo open fail!\n" + kOk +
                "FILE flash_copy.bin open fail!\n" + kOk + kOk + past +
                "400000, not compared\n" + kOk + past + "400000, not compared\n" + kOk + past +
                "400000, not compared\n" + kOk + past + "1000000, not compared\n" + kOk +
                "Matched: Compare Image Length 256\n" + kOk);
  const std::string notRegular = ": not a regular file\n";
  EXPECT_EQ(err, "spi: dir" + notRegular + "spi: fifo" + notRegular + "spi: flash_copy.bin" + notRegular +
                     "spi: cannot read /proc/self/mem: Input/output error\n");
  EXPECT_TRUE(b.flash() == before);
  // With -e each of them fails the run.
  for (const char *line : {"spi update empty.bin", "spi pgwithbase small.bin 0 0 0", "spi pgwithbase small.bin 5000 0 1"}) {
    ToolRun r;
    r.args = {"-e", line};   // the words are joined with blanks
    r.cwd = b.cwd;
    EXPECT_EQ(run_tool(r).status, 1) << line;
  }
  EXPECT_TRUE(b.flash() == before);
}

TEST(SpiCommand, UpdatecfgProgramsTheConfigurationAreaWithProgressLines) {
  Bench b;
  const std::string file = random_bytes(0x6000 + 0x2000 + 0x400, 2);
  b.put("fw_config.bin", file);
  const std::string erases = info("Sector Erase 6") + info("Sector Erase 7");
  std::string expected = erases;
  for (int i = 1; i <= 32; ++i)
    expected += "\nupdate config complete: " + std::string(i < 10 ? "0" : "") + std::to_string(i);
  EXPECT_EQ(norm(b.run("spi updatecfg fw_config.bin\n")), expected + "Image Length 8448\n" + kOk);
  const std::string img = b.flash();
  EXPECT_EQ(img.substr(0x6000, 0x2100), file.substr(0x6000, 0x2100));
  EXPECT_EQ(img.substr(0, 0x100), std::string(0x100, '\xFF'));   // nothing lands at flash 0
  // A short file: the pass that finds the end still reports. A missing one is found after
  // the two sectors were erased, as the command always did.
  // A FIFO is refused at once instead of blocking while the flash is held.
  b.put("short.bin", random_bytes(0x6000 + 0x300, 3));
  ASSERT_EQ(mkfifo((b.cwd + "/fifo").c_str(), 0644), 0);
  std::string err;
  EXPECT_EQ(norm(b.run("spi updatecfg short.bin\nspi updatecfg none.bin\nspi updatecfg fifo\n", {}, &err)),
            erases + "\nupdate config complete: 01\nupdate config complete: 02\nupdate config complete: 03"
                     "Image Length 768\n" + kOk + erases + "FILE none.bin open fail!\n" + kOk + erases +
                     "FILE fifo open fail!\n" + kOk);
  EXPECT_TRUE(err.ends_with("spi: fifo: not a regular file\n")) << err;
}

TEST(SpiCommand, CalibrationOwnershipAndALostAdapterStopCommands) {
  Bench b;
  std::string out = b.run("spi cal\nspi cal\n", {{"KIVTOOL_SIM_FLASH_DLY_MIN", "20"}, {"KIVTOOL_SIM_FLASH_DLY_MAX", "26"}});
  // First run writes the pattern (erasing its sector), the second finds it in place; both
  // keep the middle of the working delays.
  EXPECT_EQ(norm(out), info("Sector Erase 64") + "spi_sysDelay = 23\n" + kOk + "spi_sysDelay = 23\n" + kOk);
  EXPECT_EQ(b.flash().substr(0x40000, 0x20),
            std::string(16, '\xFF') + kCalPattern);

  const EnvVars broken = {{"KIVTOOL_SIM_FLASH_DLY_MIN", "40"}, {"KIVTOOL_SIM_FLASH_DLY_MAX", "50"}};
  EXPECT_TRUE(b.run("spi cal\n", broken).ends_with("SPIC  Calibration FAILED\n" + kOk));
  b.put("img.bin", random_bytes(600, 4));
  out = b.run("spi update img.bin\nspi pg0861flash img.bin 1 1\nspi rdid\n", broken);
  // Both return at once, without a word of their own: no closing line, no release (the
  // next command still gets in).
  const std::string failed = "g_SpiCH=1, spic_clk=12\n" + info("Sector Erase 64") + "Errno : -1\n";
  EXPECT_NE(norm(out).find(failed + failed + "manfacturer ID ef"), std::string::npos) << out;
  EXPECT_EQ(out.find("Image Length"), std::string::npos);

  // Our request is still set: with the other master holding the flash nothing runs.
  std::string err;
  EXPECT_EQ(b.run("spi rdid\n", {{"KIVTOOL_SIM_FLASH_OWNED", "1"}}, &err), kOk);
  EXPECT_NE(err.find("could not own the flash (code -11)"), std::string::npos) << err;
  // Once the other master lets go, the flash is ours again.
  EXPECT_EQ(b.run("spi rdid\n"), "manfacturer ID ef deviceID0 40 deviceID1 16\n" + kOk);

  // An adapter lost halfway through an update: it stops at the first failed access, says
  // how far it got, and the handler reports the transport's code.
  b.put("img.bin", random_bytes(256 * 1024, 7));
  out = b.run("spi update img.bin\n", {{"KIVTOOL_SIM_FAULTS", "unplug@20000"}});
  const size_t at = out.find("Image Length ");
  ASSERT_NE(at, std::string::npos) << out;
  EXPECT_LT(std::stoul(out.substr(at + 13)), 256u * 1024);
  EXPECT_EQ(out.find("Matched"), std::string::npos);
  EXPECT_TRUE(out.ends_with("\nSPI Flash CMD Over\nErrno : 8\n")) << out;
}

TEST(SpiCommand, ProgressBarOnlyWhenStderrIsATerminal) {
  Bench b;
  b.put("img.bin", random_bytes(200000, 5));
  b.run("spi update img.bin\n");
  std::string err;
  const std::string piped = b.run("spi verify img.bin\n", {}, &err);
  EXPECT_EQ(err, "");
  // On a terminal only stderr (the pane) changes: stdout goes to a file.
  Term t("(cd " + ::quoted(b.cwd) + " && KIVTOOL_SIM=sim " + quoted(KIVTOOL_PATH) +
         " spi verify img.bin < /dev/null > tty.out)");
  ASSERT_EQ(t.wait(), 0);
  EXPECT_EQ(read_file(b.cwd + "/tty.out"), kSdkLine + piped);
  EXPECT_EQ(piped, "Matched: Compare Image Length 200000\n" + kOk);
  // The pane's copy of the screen may trail the command's end: wait for it.
  EXPECT_NE(t.waitFor("verify"), std::string::npos) << t.output();
  EXPECT_NE(t.waitFor("100%"), std::string::npos) << t.output();

  // An update shows its phases with the time left; stdout stays as piped.
  b.put("img2.bin", random_bytes(200000, 6));
  Term u("(cd " + ::quoted(b.cwd) + " && KIVTOOL_SIM=sim " + quoted(KIVTOOL_PATH) +
         " spi update img2.bin < /dev/null > tty.out)");
  ASSERT_EQ(u.wait(), 0);
  const std::string ttyOut = read_file(b.cwd + "/tty.out");
  EXPECT_NE(ttyOut.find("Matched: Compare Image Length 200000\nSPI Flash CMD Over"), std::string::npos) << ttyOut;
  for (const char *shown : {"scan ", "erase ", "program ", "check ", " left", "pages programmed"})
    EXPECT_NE(u.waitFor(shown), std::string::npos) << shown << "\n" << u.output();
}

}  // namespace
