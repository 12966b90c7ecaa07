// Fuzz target: typed lines through the whole command engine with the tool's full command
// table, on the simulated board attached in-process (state in a scratch directory).
//
// Input: one byte of line modes (two bits per line: run, help "?", completion Tab, or run
// with the text the engine left for the editor in front), then up to four lines separated
// by '\n'. Each line goes through kiv_processLine exactly as the shell hands it over.
//
// Commands that never end on their own (the link monitors, the register logger, the remote
// wake loop) and work that takes seconds (large flash dumps, long erase ranges, images
// from files outside the scratch directory, the VLAN table dump) are skipped in run mode by guards placed in
// front of the real handlers; help and completion see the unchanged table.
#include <unistd.h>

#include <array>
#include <cstring>
#include <string>
#include <string_view>

#include "access/access.h"
#include "access/usbio.h"
#include "fuzz/fuzz_util.h"
#include "internal/common/hx5200_spiflash.h"
#include "internal/kivcmd/hx5200_cmd.h"
#include "kiv/kiv_parser.h"
#include "shell/kivshell.h"
#include "sim/sim.h"

namespace {

constexpr size_t kRows = sizeof hx5200_cmdTable / sizeof hx5200_cmdTable[0];
std::array<kiv_cmd_t, kRows> g_table;
kiv_group_t g_root;
std::string g_simDir;
unsigned long g_runs = 0;
// The board's register store grows with every new address written; start over now and
// then so that a long run keeps a small state.
constexpr unsigned long kFreshBoardEvery = 50000;

// The values a handler would receive, read ahead on a copy of its cursor. The table's
// grammars have no repeated items, so reading ahead changes nothing for the handler.
struct Peek {
  void *cursor;
  explicit Peek(void **argv) : cursor(*argv) {}
  std::string_view word() {
    void *p = nullptr;
    kiv_uint32 size = 0;
    if (kiv_getNextCmdToken(&cursor, &p, &size) != 0 || p == nullptr || size != 0) return {};
    return static_cast<const char *>(p);
  }
  kiv_uint32 number() {
    void *p = nullptr;
    kiv_uint32 size = 0, v = 0;
    if (kiv_getNextCmdToken(&cursor, &p, &size) == 0 && p != nullptr && size == 4) memcpy(&v, p, 4);
    return v;
  }
};

kiv_int32 guardedMib(kiv_uint32 uid, kiv_int32 argc, void **argv) {
  const std::string_view w = Peek(argv).word();
  if (w == "sread" || w == "dread" || w == "dumpreg" || w == "rwaketest") return 0;
  return hx5200_cmd_mib(uid, argc, argv);
}

kiv_int32 guardedSpi(kiv_uint32 uid, kiv_int32 argc, void **argv) {
  Peek peek(argv);
  const std::string_view w = peek.word();
  if (w == "dumptobin") {
    peek.number();
    if (peek.number() > 4096) return 0;
  } else if (w == "erase") {
    const std::string_view kind = peek.word();
    if (kind == "sector" || kind == "block") {
      const kiv_uint32 from = peek.number(), to = peek.number();
      if (to >= from && to - from > 3) return 0;
    }
  } else if (w == "update" || w == "updatecfg" || w == "pgwithbase" || w == "verify" || w == "verifywithbase" ||
             w == "pg0861flash" || w == "pg0861flash2") {
    // File names reach the file system: only plain names inside the scratch directory.
    void *p = nullptr;
    kiv_uint32 size = 0;
    if (kiv_getNextCmdToken(&peek.cursor, &p, &size) != 0 || p == nullptr) return 0;
    const std::string_view file(static_cast<const char *>(p));
    if (file.find('/') != std::string_view::npos || file == "." || file == "..") return 0;
  }
  return hx5200_cmd_spi(uid, argc, argv);
}

kiv_int32 guardedVlan(kiv_uint32 uid, kiv_int32 argc, void **argv) {
  if (Peek(argv).word() == "dump") return 0;   // reads the whole table: seconds
  return hx5200_cmd_vlan(uid, argc, argv);
}

void attachBoard(bool fresh) {
  sim_detach();
  if (fresh) {
    unlink((g_simDir + "/regs.bin").c_str());
    unlink((g_simDir + "/flash.bin").c_str());
  }
  const usb_ops_t *ops = sim_attach(g_simDir.c_str());
  if (!ops) abort();
  usb_ops_set(ops);
  usbio_handle = nullptr;
  usbio_use_i2c();
  usbio_connect();
}

// Settings a previous input may have changed (`set`, `spi setch` and the like, the page
// register), so that each input starts where a fresh session would.
void restoreSettings() {
  reg_debug_trace = 0;
  mdcaddrid = 24;
  hx_mibFormat = 0;
  hx_chipVersion = 1;
  spi_flash_cfg_reset();
  if (i2caddrid != 4 || usbio_handle == nullptr) {
    i2caddrid = 4;
    usbio_connect();
  }
  if (access_if != ACCESS_IF_I2C) usbio_use_i2c();
  reg_write(1, PAGE_REG_ADDR, PAGE_SWCORE);
}

enum Mode : uint8_t { kRun = 0, kHelp = 1, kComplete = 2, kContinue = 3 };

void processLine(std::string_view text, Mode mode) {
  std::array<char, KIV_LINE_SIZE> line{};
  std::string s;
  if (mode == kContinue) s = kiv_outputBuffer;   // what the editor would have pre-loaded
  s.append(text);
  // Room for the help or completion mark, the terminator and the NUL.
  if (s.size() > KIV_LINE_SIZE - 3) s.resize(KIV_LINE_SIZE - 3);
  if (mode == kHelp) s += '?';
  if (mode == kComplete) s += '\t';
  s += '\n';
  if (s[0] == '\n') return;   // the shell skips empty lines
  memcpy(line.data(), s.data(), s.size());
  kiv_processLine(line.data(), static_cast<int>(s.size()));
  kiv_buildPrompt(kiv_prompt, KIV_PROMPT_SIZE, line.data(), s.size() >= 2 ? s[s.size() - 2] : 0);

  // The root group has no sub-groups: whatever the line, the path stays at the root, and
  // the text left for the editor fits its buffers.
  FUZZ_CHECK(strcmp(kiv_pathBuffer, "<HX5200/>") == 0);
  FUZZ_CHECK(strcmp(kiv_prompt, "<HX5200/> ") == 0);
  FUZZ_CHECK(strnlen(kiv_outputBuffer, KIV_OUTBUF_SIZE) < KIV_OUTBUF_SIZE);
  FUZZ_CHECK(strnlen(line.data(), line.size()) < KIV_LINE_SIZE - 1);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  fuzz_quietStdout();
  const std::string dir = fuzz_tempDir("kivfuzz-engine");
  if (dir.empty() || chdir(dir.c_str()) != 0) abort();
  g_simDir = dir + "/sim";

  for (size_t i = 0; i < kRows; i++) {
    g_table[i] = hx5200_cmdTable[i];
    if (g_table[i].cmdHandler == hx5200_cmd_mib) g_table[i].cmdHandler = guardedMib;
    if (g_table[i].cmdHandler == hx5200_cmd_spi) g_table[i].cmdHandler = guardedSpi;
    if (g_table[i].cmdHandler == hx5200_cmd_vlan) g_table[i].cmdHandler = guardedVlan;
  }
  g_root = hx5200_rootGroup;
  g_root.cmds = g_table.data();

  if (kiv_init(1, 256, 256) != 0) abort();
  if (kiv_userInit("3100", 1, 0xC0, 4, &g_root) != 0) abort();
  attachBoard(true);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (++g_runs % kFreshBoardEvery == 0) attachBoard(true);
  restoreSettings();
  kiv_outputBuffer[0] = '\0';

  ByteReader in(data, size);
  const uint8_t modes = in.u8();
  size_t n = 0;
  const char *text = reinterpret_cast<const char *>(in.rest(&n));
  std::string_view rest(text, n);
  // A NUL ends the text, as it would end a C string typed into the tool.
  rest = rest.substr(0, rest.find('\0'));

  for (int i = 0; i < 4 && !rest.empty(); i++) {
    const size_t nl = rest.find('\n');
    const std::string_view lineText = rest.substr(0, nl);
    rest = nl == std::string_view::npos ? std::string_view() : rest.substr(nl + 1);
    processLine(lineText, static_cast<Mode>(modes >> (2 * i) & 3));
  }
  return 0;
}
