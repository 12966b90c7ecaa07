// The shipped command table: rows, help texts, the first words each grammar offers, and
// the rows whose behaviour the tool does not provide.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "engine_fixture.h"
#include "internal/kivcmd/hx5200_cmd.h"
#include "kiv/kiv_ciscoParser.h"

namespace {

struct RowSpec {
  const char *name;
  const char *help;
  std::vector<std::string> words;   // the first words, in grammar order
  bool exact;                       // the grammar offers exactly these words
  bool notSupported;                // handled by hx5200_cmd_notSupported
};

const std::vector<RowSpec> &rows() {
  static const std::vector<RowSpec> r = {
      {"reg", "Register read/write access",
       {"set", "get", "setbit", "getbit", "setbits", "getbits", "getburst", "chgpage", "indirset", "indirget"}, true, false},
      {"mib", "mib counter",
       {"enable", "read", "sys", "lag", "route", "sread", "dread", "dumpreg", "rwaketest", "clear", "clearall"}, true, false},
      {"spi",
       "SPI Flash read/write and image update, default is 16bit flash. These command need stop and reset CPU.",
       {"read", "write", "erase", "update", "updatecfg", "cal", "auto", "setsysdly", "getsysdly", "setspd", "getspd",
        "setch", "getch", "rdsr", "rdcr", "rdid", "wrsr", "wren", "wrdi", "dumptobin", "clearprotect", "pgwithbase",
        "pg0861flash", "pg0861flash2", "verifywithbase", "verify"}, true, false},
      {"set", "set kiv configuration",
       {"regif", "mibfmt", "mdxid", "i2cid", "autocal", "chipver", "rwake", "reset", "portmode", "portmodeinternal",
        "savecontest", "wrimage", "wrrotcfg", "wrpatch", "wrptpconfig", "wrfwconfig", "wrrotconfig", "getcontest",
        "setest", "read36ktest", "read04ktest", "write04ktest", "e0tdly", "e0rdly", "spich", "spispd", "spils"}, true, false},
      {"get", "get switch status", {"fwver", "chipver"}, true, false},
      {"vlan", "access vlan table",
       {"set", "get", "dump", "init", "mode", "pvid", "igfilter", "egfilter", "igretag", "egretag"}, true, false},
      {"qos", "qos test", {"init", "portPriority", "priToQueueMapping", "queueProperty"}, true, true},
      {"igrate", "Ingress rate control.", {"gap", "all", "%d"}, true, true},
      {"egrate", "Egress rate control.", {"gap", "all", "%d"}, true, true},
      {"are", "check and show myself", {"you", "ok"}, true, true},
      {"dot1x", "802.1X", {"get", "set"}, true, true},
      {"lacp", "Link Aggregation Control Protocol", {"init", "get", "set"}, true, true},
      {"la", "Link Aggregation", {"init", "get", "set"}, true, true},
      {"tai", "International Atomic Time Function", {"phy", "mac"}, true, true},
      {"pcpremarking", "PCP remarking config", {"decidecfg", "tx", "rx"}, true, true},
      {"gptp", "ptp configurations",
       {"get", "reset", "set", "hw", "status", "control", "dumpMib", "log", "time", "pid", "adj", "assigntime", "mib",
        "cns"}, true, true},
      {"dump", "Dump ASIC/FPGA table Information",
       {"acl", "action", "template", "counter", "group", "validl2", "macaddress", "bintoreg", "lutcam", "policer",
        "vlan", "hsb", "ppi", "pmi", "nic", "rxqueue", "portcfg", "l3hosttbl", "l3hashidx", "igriftbl", "netroutetbl",
        "egriftbl", "nhtbl", "rhtbl", "mccoltbl", "oiltbl", "l3status"}, true, true},
      {"l2table", "L2 Table Control Command",
       {"alg0", "alg1", "findsa", "enstatic", "disstatic", "endablk", "disdablk", "ensablk", "dissablk", "lrate",
        "firstcol", "dump", "dumpcam", "setstatic"}, true, true},
      {"sram", "sram read/write",
       {"read", "write", "fwcget", "fwcset", "rottblget", "rottblset", "rotintfget", "rotintfset", "update",
        "dumpsramtobin"}, true, true},
      {"aclset", "allow sa pass from port#", {"allowsa"}, true, true},
      {"reset", "reset", {"asic", "chip", "cpu", "hw", "switch", "sw", "nic", "flashctrl", "sys"}, true, true},
      {"phy", "phy read/write access",
       {"r", "rc", "read", "write", "testmode", "rtpgetm", "phyreset", "reset", "enable", "role", "autopolarity",
        "linkst", "outputlinkst", "pktgen", "channel", "ocp2reg", "mdc2reg"}, true, false},
      {"init", "initialize the switch", {"<cr>"}, true, false},
      {"smi", "SMI interface Register read/write access", {"set", "get", "brdset", "extaccess", "channel"}, true, false},
      {"gphy", "read giga phy extension register", {"readext", "writeext"}, true, false},
      {"t18", "T18 command", {"dft", "vo9"}, true, true},
      {"stp", "stp test", {"get", "set"}, true, true},
      {"asictest", "ASIC/FPGA testing cases", {"%d"}, true, true},
      {"dos", "Deny of Service prevention configuration",
       {"all", "daeqsa", "icmpFrag", "icmpv4PingMax", "icmpv6PingMax", "land", "nullscan", "pod", "smurf", "synfin",
        "synSportL1024", "tcpblat", "tcpHdrMin", "udpblat", "xmas", "synflood"}, true, true},
      {"drivertest", "SDK/driver testing cases", {"all", "%d"}, true, true},
      {"wol", "WOL function", {"intr_set", "intr_stat_clear", "intr_stat_get"}, true, true},
      {"via", "VIAROM image update. These command need stop and reset CPU.", {"update", "verify"}, true, true},
      {"brom", "BootRom image update. These command need stop and reset CPU.", {"update", "verify"}, true, true},
      {"efuse", "efuse content  update. These command need stop and reset CPU.",
       {"update", "pat00", "write", "programtest", "verifytest", "dump"}, true, true},
      {"otp", "otp content  update. These command need stop and reset CPU.",
       {"init", "repair", "write", "writelock", "writebin", "read", "dump", "dumpMargin", "dumpMarginAll", "dumplock",
        "dumptest", "check"}, true, true},
      {"sys", "system configuration and parameter get", {"fwver", "write", "update", "verify"}, true, true},
      {"sram", "sram read/write", {"read", "write", "vget", "vset", "fwcget", "fwcset"}, true, true},
      {"nic", "Run testcases according to your select. ", {"all", "%d"}, true, true},
      {"ckdigrtt", "CKDIG_RTT command", {"25m", "125m", "66m", "off", "default"}, true, true},
      {"acl", "Access Command line",
       {"redirect", "itag", "otag", "dscprmk", "prirmk", "ruletbwr", "ruletbrd", "ruletbdel", "reset"}, true, true},
      {"mmd", "mmd register read/write access", {"read", "write"}, true, false},
      {"macif", "mac interface for Port 4, 5, 6, 7, 8, 9, 10 and 11", {"set", "get"}, true, true},
      {"srp", "Stream reservation administration control", {"msrp", "mvrp", "qav", "manual"}, true, true},
      {"serdes", "Serdes read/write access", {"setbits", "getbits"}, true, true},
      {"pcie", "PCIe read/write access",
       {"setnic", "testioread", "testiowrite", "ocdread", "ocdwrite", "emacread", "emacwrite", "fpgaephyread",
        "fpgaephywrite"}, true, true},
      {"fqtss", "IEEE 802.1Qav Forwarding and Queuing Enhancements for Time-Sensitive Streams",
       {"admin_idle_slope", "trans_sel_algorithm", "pri_regen_table", "pri_regen_tag_sel"}, false, true},
      {"st", "IEEE 802.1Qbv Enhancements for Scheduled Traffic",
       {"queue_max_SDU", "transmission_overrun", "gate_enabled", "gate_states", "control_list_length",
        "control_list", "cycle_time", "cycle_time_extension", "base_time", "config_change", "config_change_time",
        "tick_granularity", "current_time", "config_pending", "config_change_error", "supported_list_max",
        "configure", "dump_sgot", "byte_count"}, false, true},
      {"stridn", "TSN stream identification function for psfp(IEEE 802.1 Qci) and frer(IEEE 802.1 CB).",
       {"init", "enabled", "entry", "dump_valid_bit", "dump_counter"}, true, true},
      {"psfp", "IEEE 802.1Qci Per Stream Filtering and Policying",
       {"mode", "capability", "init", "stream_filter", "stream_gate", "flow_meter"}, true, true},
      {"stk", "Stacking Function",
       {"enable", "disable", "devsearch", "autocfg", "get", "set", "dump", "dbg", "test", "fwtest"}, true, true},
      {"testio", "testio mode MDC/MDIO access", {"set", "get", "smiget", "smiset", "testset", "testget"}, true, true},
      {"mdx", "External PHY register read/write access", {"init", "set", "get"}, true, false},
  };
  return r;
}

// The words a row's grammar offers before anything is typed.
std::vector<std::string> firstWords(const kiv_cmd_t *row) {
  const kiv_cmd_t *cmd = row;
  void *saved = nullptr;
  char *token = nullptr;
  char *argv[1] = {nullptr};
  const kiv_int32 n = ciscoCmdParser(0, argv, &cmd, &saved, &token);
  std::vector<std::string> words;
  if (n == 0) {
    words.push_back("<cr>");
  } else {
    kiv_candEntry_t entries[256];
    const kiv_uint32 total = ciscoCmdParserListCandidates(entries, 256);
    for (kiv_uint32 i = 0; i < total; i++) words.push_back(entries[i].text);
  }
  ciscoCmdParserReset();
  return words;
}

TEST(CommandTable, RowsInOrder) {
  ASSERT_EQ(rows().size(), 52u);
  EXPECT_STREQ(hx5200_rootGroup.groupName, "HX5200");
  EXPECT_STREQ(hx5200_rootGroup.groupHelp, "Command of HX5200 ASIC driver");
  EXPECT_EQ(hx5200_rootGroup.promptText, nullptr);
  EXPECT_EQ(hx5200_rootGroup.cmds, hx5200_cmdTable);
  EXPECT_EQ(hx5200_rootGroup.cmdCount, 52);
  EXPECT_EQ(hx5200_rootGroup.subGroupCount, 0);
  EXPECT_EQ(hx5200_rootGroup.groupFlags, 0);
  for (size_t i = 0; i < 52; i++) {
    const kiv_cmd_t &row = hx5200_cmdTable[i];
    const RowSpec &spec = rows()[i];
    SCOPED_TRACE(std::to_string(i) + " " + spec.name);
    EXPECT_STREQ(row.cmdName, spec.name);
    EXPECT_STREQ(row.cmdHelp, spec.help);
    EXPECT_EQ(row.cmdFlags, KIV_USECISCOCMDPARSER);
    EXPECT_EQ(row.minArgs, 0);
    EXPECT_EQ(row.paramTypes, nullptr);
    EXPECT_NE(row.cmdHandler, nullptr);
    EXPECT_EQ(row.cmdHandler == hx5200_cmd_notSupported, spec.notSupported);
    std::vector<std::string> words = firstWords(&row);
    if (spec.exact) {
      EXPECT_EQ(words, spec.words);
    } else {
      ASSERT_GE(words.size(), spec.words.size());
      words.resize(spec.words.size());
      EXPECT_EQ(words, spec.words);
    }
  }
  EXPECT_EQ(hx5200_cmdTable[21].cmdHandler, hx5200_cmdTable[24].cmdHandler);   // phy and gphy
  EXPECT_EQ(hx5200_cmdTable[22].cmdHandler, hx5200_cmd_init);
  EXPECT_STREQ(hx5200_cmdTable[22].cmdUsage, "{}");
  EXPECT_EQ(firstWords(&hx5200_cmdTable[45]).size(), 7u);   // fqtss: three driver-call words more
  EXPECT_EQ(firstWords(&hx5200_cmdTable[46]).size(), 20u);  // st: one more
}

TEST(CommandTable, QuotedGrammarsKeepTheirSpelling) {
  // Spot checks of texts that are easy to "correct" by mistake.
  EXPECT_NE(std::strstr(hx5200_cmdTable[0].cmdUsage, "%d'Filed value' }"), nullptr);
  EXPECT_NE(std::strstr(hx5200_cmdTable[0].cmdUsage, "getburst'Get content of register' { %d'Address' %d 'get numbers back'}"), nullptr);
  EXPECT_NE(std::strstr(hx5200_cmdTable[3].cmdUsage, "getcontest'SDK get currnet disablePort and PortRole test'"), nullptr);
  EXPECT_NE(std::strstr(hx5200_cmdTable[3].cmdUsage, "spils' Sets low speed of SPIC (OTP config.)' %s '33MHz or 50MHz' }"), nullptr);
  EXPECT_NE(std::strstr(hx5200_cmdTable[2].cmdUsage, "erase 'erase spi flash'"), nullptr);
  EXPECT_NE(std::strstr(hx5200_cmdTable[2].cmdUsage, "| setsysdly 'sets SPIC sysdelay' %d  |"), nullptr);
  EXPECT_NE(std::strstr(hx5200_cmdTable[40].cmdUsage, "%d'reg vale' } }"), nullptr);
  EXPECT_NE(std::strstr(hx5200_cmdTable[51].cmdUsage, "init 'Init MDX controller '  { %d 'baud rate."), nullptr);
  EXPECT_NE(std::strstr(hx5200_cmdTable[1].cmdUsage, "%d'dump register type 0=SWR 1 =OCP'"), nullptr);
  EXPECT_STREQ(hx5200_cmdTable[4].cmdUsage, "{ fwver'get firmware version'  | chipver'get chip version' }");
  EXPECT_EQ(std::strncmp(hx5200_cmdTable[5].cmdUsage, "{  set'set vlan entry' { %d'vlan id'", 35), 0);
  for (const kiv_cmd_t &row : hx5200_cmdTable)
    EXPECT_LT(std::strlen(row.cmdUsage), static_cast<size_t>(MAX_CMD_TEMPBUFFER)) << row.cmdName;
}

TEST(CommandTable, Hx3100Group) {
  EXPECT_STREQ(hx3100_group.groupName, "hx3100");
  EXPECT_STREQ(hx3100_group.groupHelp, "HX3100 command line interface");
  EXPECT_STREQ(hx3100_group.promptText, "hx3100");
  ASSERT_EQ(hx3100_group.cmdCount, 1);
  EXPECT_STREQ(hx3100_group.cmds[0].cmdName, "pci");
  EXPECT_STREQ(hx3100_group.cmds[0].cmdHelp, "read/write io address");
  EXPECT_EQ(firstWords(&hx3100_group.cmds[0]), (std::vector<std::string>{"read", "write"}));

  // Not reachable from the root, but usable as a root of its own.
  engine_setUp(&hx3100_group);
  char prompt[32];
  kiv_getPrompt(0, prompt, sizeof prompt);
  EXPECT_STREQ(prompt, "<hx3100>");
  EXPECT_EQ(engine_run("pci read 0x1f 1").out, "REG8(1f)=00\nSuccess!!\n");
  EXPECT_EQ(engine_run("pci read 0x20 2").out, "REG16(20)=0000\nSuccess!!\n");
  EXPECT_EQ(engine_run("pci write 0xab 5 4").out, "REG32(ab)=00000000\nSuccess!!\n");
  EXPECT_EQ(engine_run("pci read 0xab 3").out, "Success!!\n");
}

TEST(CommandTable, NotSupportedRows) {
  engine_setUp(&hx5200_rootGroup);
  for (size_t i = 0; i < 52; i++) {
    const RowSpec &spec = rows()[i];
    if (!spec.notSupported || i == 36) continue;   // row 36 is shadowed by row 18
    std::string word = spec.words[0];
    std::string line = std::string(spec.name) + " " + (word == "%d" ? "0x10 20" : word);
    std::string shown = word == "%d" ? "16" : word;
    SCOPED_TRACE(line);
    LineResult r = engine_run(line);
    EXPECT_EQ(r.out, std::string(spec.name) + " " + shown + ": not supported\nErrno : -1\n");
    EXPECT_EQ(r.rc, -1);
  }
  // The typed word after completion, and the command name after a unique prefix.
  EXPECT_EQ(engine_run("qos i").out, "1th token best matched for 'init'\nqos init: not supported\nErrno : -1\n");
  EXPECT_EQ(engine_run("pcp tx").out, "pcpremarking tx: not supported\nErrno : -1\n");
  EXPECT_EQ(engine_run("init").out, "init: not supported\nErrno : -1\n");
  // "sram" always means row 18: row 36's words are refused.
  EXPECT_EQ(engine_run("sram read 0 1").out, "sram read: not supported\nErrno : -1\n");
  EXPECT_NE(engine_run("sram vget").out.find("Error on 1th token 'vget'"), std::string::npos);
}

}  // namespace

namespace {

// Random lines made of table words, their prefixes, numbers and odd characters, asked
// for help and completion (no handler runs in those modes): the engine must neither
// crash nor overrun, and the output buffer stays a terminated text.
TEST(CommandTable, RandomLinesForHelpAndCompletion) {
  engine_setUp(&hx5200_rootGroup);
  const char *vocab[] = {"reg", "re", "vlan", "vl", "igretag", "set", "status", "all", "enable", "get", "g",
                         "%", "%d", "0x10", "5", "\"", "\"a b\"", "<cr>", "<", "x", "spi", "wrsr", "1",
                         "2", "mib", "dread", "sram", "qos", "Queue", "-", "1.2.3.4", "e", "in", "?x"};
  unsigned seed = 12345;
  auto next = [&seed] {
    seed = seed * 1103515245u + 12345u;
    return (seed >> 16) & 0x7fff;
  };
  for (int i = 0; i < 400; i++) {
    std::string line;
    const int words = 1 + static_cast<int>(next() % 7);
    for (int w = 0; w < words; w++) {
      if (w) line += next() % 5 ? " " : "\t";
      line += vocab[next() % (sizeof vocab / sizeof vocab[0])];
    }
    const bool tab = next() % 2;
    if (!tab) line += next() % 2 ? " ?" : "?";
    SCOPED_TRACE(line);
    LineResult r = engine_run(line, tab);
    EXPECT_LT(r.buf.size(), static_cast<size_t>(KIV_OUTBUF_SIZE));
  }
}

}  // namespace
