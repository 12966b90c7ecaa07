// `set` and `get`: settings, closing lines, version registers, the transport a changed
// interface selects and the device address a changed I2C id gives the adapter.
#include <array>
#include <string>

#include "access/access.h"
#include "access/usbio.h"
#include "internal/kivcmd/hx5200_cmd.h"
#include "kiv/kiv_parser.h"
#include "regcmd_util.h"
#include "sim/sim.h"

namespace {

const std::string kSetOver = "SET CMD Over\n";
const std::string kGetOver = "GET CMD Over\n";

// Runs a line through the engine in this process, on a simulated board (i2cid reopens it).
std::string runLine(const char *text) {
  static const bool ready = [] {
    usb_ops_set(sim_attach(make_temp_dir("cfg").c_str()));
    return kiv_init(1, 256, 256) == 0 && kiv_userInit("3100", 1, 0xC0, 4, &hx5200_rootGroup) != KIV_NOUSER;
  }();
  EXPECT_TRUE(ready);
  std::array<char, 1024> out{};
  std::string line(text);
  testing::internal::CaptureStdout();
  kiv_cmdProcess(0, line.data(), out.data(), static_cast<kiv_uint32>(out.size()));
  return testing::internal::GetCapturedStdout();
}

TEST(SetCommand, ShellSettingsByWholeWords) {
  const struct { const char *line; uint8_t *setting; uint8_t expected; } cases[] = {
      {"set mibfmt hex", &hx_mibFormat, 1}, {"set mibfmt HEX", &hx_mibFormat, 0},
      {"set mibfmt hex", &hx_mibFormat, 1}, {"set mibfmt dec", &hx_mibFormat, 0},
      {"set chipver c", &hx_chipVersion, 2}, {"set chipver A", &hx_chipVersion, 0},
      {"set chipver D", &hx_chipVersion, 3}, {"set chipver e", &hx_chipVersion, 1},
      {"set chipver a", &hx_chipVersion, 0}, {"set chipver ab", &hx_chipVersion, 1},
      {"set mdxid 0x1FF", &mdcaddrid, 0xFF}, {"set i2cid 9", &i2caddrid, 9},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(runLine(c.line), kSetOver + kOk) << c.line;
    EXPECT_EQ(*c.setting, c.expected) << c.line;
  }
}

TEST(GetCommand, VersionsFromTheBoard) {
  expectSession({{"get fwver", "\nFirmware Version 0x1020300\n" + kGetOver + kOk},
                 {"get chipver", "\nSwitch Chip Version: Formal Chip\n" + kGetOver + kOk}});
  expectSession({{"get chipver", "\nSwitch Chip Version: ES2\n" + kGetOver + kOk}}, {{"KIVTOOL_SIM_CHIP_VERSION", "2"}});
  expectSession({{"get chipver", kGetOver + kOk}}, {{"KIVTOOL_SIM_CHIP_VERSION", "0"}});
}

// Register transfers in a capture, one letter per run of the same transport:
// I for I2C (0x13/0x14), S for SPI (0x23/0x24), M for SMI (0x43/0x44).
std::string transports(const std::vector<std::vector<uint8_t>> &cmds) {
  std::string seq;
  for (const auto &c : cmds) {
    using namespace usbio_proto;
    const char t = c[8] == kCodeI2cWrite || c[8] == kCodeI2cRead   ? 'I'
                   : c[8] == kCodeSpiWrite || c[8] == kCodeSpiRead ? 'S'
                   : c[8] == kCodeSmiWrite || c[8] == kCodeSmiRead ? 'M'
                                                                   : 0;
    if (t && (seq.empty() || seq.back() != t)) seq += t;
  }
  return seq;
}

// Closing lines; an I2C id the chip does not answer to fails the access until it is put
// back (the chip answers at 0xA8 only); regif picks the transport of later accesses.
TEST(SetCommand, ClosingLineUnsupportedWordsI2cIdAndRegif) {
  const std::string dir = make_temp_dir("regif");
  const std::string get = "reg get 0x2F0000", value = "[0x2F0000]=0x0000\n" + kOk;
  std::vector<Step> steps = {
      {"set e0tdly 5", kSetOver + kOk},
      {"set autocal 3", "set autocal: not supported\n" + kSetOver + errnoLine(-1)},
      {"set wrimage x.bin", "set wrimage: not supported\n" + kSetOver + errnoLine(-1)},
      {"set i2cid 5", kSetOver + kOk}, {get, errnoLine(-1001)}, {"set i2cid 4", kSetOver + kOk}, {get, value},
  };
  for (const char *iface : {"spi", "smi", "i2c", "spi", "uart"})   // uart: I2C, earlier pair
    steps.insert(steps.end(), {{std::string("set regif ") + iface, kSetOver + kOk}, {get, value}});
  expectSession(steps, {{"KIVTOOL_PCAP", dir + "/cap.pcap"}});
  EXPECT_EQ(transports(command_headers(dir + "/cap.pcap")), "ISMISI");
}

}  // namespace
