// Configuration and status commands: `set` changes the shell's own settings (register
// interface, MIB number format, MDIO and I2C ids, chip version); `get` reports the
// firmware and chip versions.
#include <array>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "access/access.h"
#include "access/usbio.h"
#include "internal/common/hx5200_regasicdrv.h"
#include "internal/kivcmd/hx5200_cmd.h"

uint8_t hx_mibFormat = 0;     // 0 decimal, 1 hexadecimal
uint8_t hx_chipVersion = 1;   // 0..3 = versions a..d

namespace {

kiv_int32 setRegif(void **argv) {
  const char *name = cmd_nextStr(argv);
  if (name == nullptr) return 0;
  const std::string_view word(name);
  if (word == "i2c")
    (void)usbio_use_i2c();
  else if (word == "smi")
    (void)usbio_use_smi();
  else if (word == "spi")
    (void)usbio_use_spi();
  else
    access_if_set(ACCESS_IF_I2C);   // selects I2C without registering its pair
  return 0;
}

kiv_int32 setMibfmt(void **argv) {
  const char *name = cmd_nextStr(argv);
  if (name != nullptr) hx_mibFormat = std::string_view(name) == "hex" ? 1 : 0;
  return 0;
}

kiv_int32 setMdxid(void **argv) {
  uint32_t id = 0;
  if (cmd_nextU32(argv, &id)) mdcaddrid = static_cast<uint8_t>(id);
  return 0;
}

kiv_int32 setI2cid(void **argv) {
  uint32_t id = 0;
  if (!cmd_nextU32(argv, &id)) return 0;
  i2caddrid = static_cast<uint8_t>(id);   // not limited to three bits here
  // Reopen the adapter so that it is configured with the new device address.
  (void)usbio_close(usbio_handle, 0);
  usbio_connect();
  return 0;
}

struct ChipVersionWord {
  std::string_view lower;
  std::string_view upper;
  uint8_t version;
};
constexpr auto kChipVersions = std::to_array<ChipVersionWord>({
    {"a", "A", 0},
    {"b", "B", 1},
    {"c", "C", 2},
    {"d", "D", 3},
});

kiv_int32 setChipver(void **argv) {
  const char *name = cmd_nextStr(argv);
  if (name == nullptr) return 0;
  const std::string_view word(name);
  hx_chipVersion = 1;   // any other text is version b
  for (const ChipVersionWord &row : kChipVersions)
    if (word == row.lower || word == row.upper) hx_chipVersion = row.version;
  return 0;
}

kiv_int32 acceptOnly(void **) { return 0; }

constexpr auto kChipVersionText = std::to_array<const char *>({
    nullptr,
    "\nSwitch Chip Version: ES1",
    "\nSwitch Chip Version: ES2",
    "\nSwitch Chip Version: ES3",
    "\nSwitch Chip Version: Formal Chip",
});

// A version that cannot be read prints nothing; the line fails all the same (-e).
kiv_int32 getFwver(void **) {
  uint32_t value = 0;
  if (reg_read(1, SW_FW_VERSION, &value) == 0)
    printf("\nFirmware Version 0x%x\n", value);
  else
    kiv_markLineFailed();
  return 0;
}

kiv_int32 getChipver(void **) {
  uint32_t value = 0;
  if (reg_read(1, SW_CHIP_VERSION, &value) != 0)
    kiv_markLineFailed();
  else if (value < kChipVersionText.size() && kChipVersionText[value] != nullptr)
    puts(kChipVersionText[value]);
  return 0;
}

}  // namespace

// ---- set ----------------------------------------------------------------------------------

const char hx5200_usageSet[] =
    "{ regif'register interface' %s'name'  | mibfmt'MIB counter hex/decimal' %s'name'  | "
    "mdxid'MDCMDIO interface ID' %d'name'  | i2cid'I2C interface ID' %d'name'  | autocal'enable auto "
    "Calibration '%d'portMsk'  | chipver'HX5200 version number' %s'version'  | rwake'HX5200 remote "
    "wake test' %d'port'  | reset'HX5200 remote wake test' %d'port'  | portmode'HX5200 port mode "
    "setting' %d'port' %d'mode'  | portmodeinternal'HX5200 port mode setting' %d'port mask' %d'port "
    "mode LSB byte1' %d'port mode LSB byte2' %d'port mode MSB byte1' %d'port mode MSB byte2' | "
    "savecontest'SDK save config test'  | wrimage'write image directly ' %s 'filename'  | "
    "wrrotcfg'write routing configuration directly ' %s 'filename'  | wrpatch'write patch code "
    "directly with patch code only' %s 'filename'  | wrptpconfig'write ptp config directly with ptp "
    "config only' %s 'filename' | wrfwconfig'write firmware configuration directly with firmware "
    "config only' %s 'filename'  | wrrotconfig'write external routing configuration directly ' %s "
    "'filename'  | getcontest'SDK get currnet disablePort and PortRole test'  | setest'SPI sector "
    "erase test'  | read36ktest'read back 36k config bin test'  | read04ktest'read back 04k config "
    "bin test'  | write04ktest'program back 04k config bin test'  | e0tdly'E0 port TX delay' "
    "%d'delay'  | e0rdly'E0 port RX delay' %d'delay'  | spich 'Sets number of SPIC channel (OTP "
    "config.)' %d 'channel number'  | spispd'Sets speed of SPIC' %s 'high or low'  | spils' Sets low "
    "speed of SPIC (OTP config.)' %s '33MHz or 50MHz' }";

namespace {
// Words of `set` in the order they are compared. A null function marks a word whose
// driver action this tool does not have.
constexpr auto kSetWords = std::to_array<cmd_sub_t<>>({
    {"regif", setRegif},
    {"mibfmt", setMibfmt},
    {"mdxid", setMdxid},
    {"i2cid", setI2cid},
    {"autocal", nullptr},
    {"chipver", setChipver},
    {"rwake", nullptr},
    {"reset", nullptr},
    {"portmode", nullptr},
    {"portmodeinternal", nullptr},
    {"savecontest", acceptOnly},
    {"wrimage", nullptr},
    {"wrrotcfg", nullptr},
    {"wrpatch", nullptr},
    {"wrptpconfig", nullptr},
    {"wrfwconfig", nullptr},
    {"wrrotconfig", nullptr},
    {"getcontest", acceptOnly},
    {"setest", acceptOnly},
    {"read36ktest", acceptOnly},
    {"read04ktest", acceptOnly},
    {"write04ktest", acceptOnly},
    {"e0tdly", acceptOnly},
    {"e0rdly", acceptOnly},
    {"spich", acceptOnly},
    {"spispd", acceptOnly},
    {"spils", acceptOnly},
});

}  // namespace

kiv_int32 hx5200_cmd_set(kiv_uint32, kiv_int32, void **argv) {
  const char *word = cmd_nextStr(argv);
  kiv_int32 rc = 0;
  if (const cmd_sub_t<> *row = cmd_findSub(kSetWords, word)) {
    if (row->fn != nullptr) {
      rc = row->fn(argv);
    } else {
      printf("set %s: not supported\n", word);
      rc = -1;
    }
  }
  puts("SET CMD Over");
  return rc;
}

// ---- get ----------------------------------------------------------------------------------

const char hx5200_usageGet[] = "{ fwver'get firmware version'  | chipver'get chip version' }";

namespace {
constexpr auto kGetWords = std::to_array<cmd_sub_t<>>({
    {"fwver", getFwver},
    {"chipver", getChipver},
});
}  // namespace

kiv_int32 hx5200_cmd_get(kiv_uint32, kiv_int32, void **argv) {
  (void)cmd_runSub(kGetWords, cmd_nextStr(argv), argv, 0);
  puts("GET CMD Over");
  return 0;
}

const cmd_subWords_t hx5200_wordsSet = cmd_subWords(kSetWords);
const cmd_subWords_t hx5200_wordsGet = cmd_subWords(kGetWords);
