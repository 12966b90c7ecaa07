// The shipped command table: rows, the first words each grammar offers, and
// the rows whose behaviour the tool does not provide.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "engine_fixture.h"
#include "internal/kivcmd/hx5200_cmd.h"
#include "kiv/kiv_ciscoParser.h"

namespace {

// Each row: name, the first words its grammar offers (in order; "..." at the end when
// the grammar offers more), and whether it is one of the rows the tool does not provide.
struct RowWant {
  const char *name;
  const char *words;
  bool notSupported;
};

constexpr RowWant kRows[52] = {
    {"reg", "set get setbit getbit setbits getbits getburst chgpage indirset indirget", false},
    {"mib", "enable read sys lag route sread dread dumpreg rwaketest clear clearall", false},
    {"spi",
     "read write erase update updatecfg cal auto setsysdly getsysdly setspd getspd setch "
     "getch rdsr rdcr rdid wrsr wren wrdi dumptobin clearprotect pgwithbase pg0861flash "
     "pg0861flash2 verifywithbase verify", false},
    {"set",
     "regif mibfmt mdxid i2cid autocal chipver rwake reset portmode portmodeinternal "
     "savecontest wrimage wrrotcfg wrpatch wrptpconfig wrfwconfig wrrotconfig getcontest "
     "setest read36ktest read04ktest write04ktest e0tdly e0rdly spich spispd spils", false},
    {"get", "fwver chipver", false},
    {"vlan", "set get dump init mode pvid igfilter egfilter igretag egretag", false},
    {"qos", "init portPriority priToQueueMapping queueProperty", true},
    {"igrate", "gap all %d", true},
    {"egrate", "gap all %d", true},
    {"are", "you ok", true},
    {"dot1x", "get set", true},
    {"lacp", "init get set", true},
    {"la", "init get set", true},
    {"tai", "phy mac", true},
    {"pcpremarking", "decidecfg tx rx", true},
    {"gptp", "get reset set hw status control dumpMib log time pid adj assigntime mib cns", true},
    {"dump",
     "acl action template counter group validl2 macaddress bintoreg lutcam policer vlan hsb "
     "ppi pmi nic rxqueue portcfg l3hosttbl l3hashidx igriftbl netroutetbl egriftbl nhtbl "
     "rhtbl mccoltbl oiltbl l3status", true},
    {"l2table",
     "alg0 alg1 findsa enstatic disstatic endablk disdablk ensablk dissablk lrate firstcol "
     "dump dumpcam setstatic", true},
    {"sram",
     "read write fwcget fwcset rottblget rottblset rotintfget rotintfset update dumpsramtobin", true},
    {"aclset", "allowsa", true},
    {"reset", "asic chip cpu hw switch sw nic flashctrl sys", true},
    {"phy",
     "r rc read write testmode rtpgetm phyreset reset enable role autopolarity linkst "
     "outputlinkst pktgen channel ocp2reg mdc2reg", false},
    {"init", "<cr>", false},
    {"smi", "set get brdset extaccess channel", false},
    {"gphy", "readext writeext", false},
    {"t18", "dft vo9", true},
    {"stp", "get set", true},
    {"asictest", "%d", true},
    {"dos",
     "all daeqsa icmpFrag icmpv4PingMax icmpv6PingMax land nullscan pod smurf synfin "
     "synSportL1024 tcpblat tcpHdrMin udpblat xmas synflood", true},
    {"drivertest", "all %d", true},
    {"wol", "intr_set intr_stat_clear intr_stat_get", true},
    {"via", "update verify", true},
    {"brom", "update verify", true},
    {"efuse", "update pat00 write programtest verifytest dump", true},
    {"otp",
     "init repair write writelock writebin read dump dumpMargin dumpMarginAll dumplock "
     "dumptest check", true},
    {"sys", "fwver write update verify", true},
    {"sram", "read write vget vset fwcget fwcset", true},
    {"nic", "all %d", true},
    {"ckdigrtt", "25m 125m 66m off default", true},
    {"acl", "redirect itag otag dscprmk prirmk ruletbwr ruletbrd ruletbdel reset", true},
    {"mmd", "read write", false},
    {"macif", "set get", true},
    {"srp", "msrp mvrp qav manual", true},
    {"serdes", "setbits getbits", true},
    {"pcie",
     "setnic testioread testiowrite ocdread ocdwrite emacread emacwrite fpgaephyread "
     "fpgaephywrite", true},
    {"fqtss", "admin_idle_slope trans_sel_algorithm pri_regen_table pri_regen_tag_sel ...", true},
    {"st",
     "queue_max_SDU transmission_overrun gate_enabled gate_states control_list_length "
     "control_list cycle_time cycle_time_extension base_time config_change config_change_time "
     "tick_granularity current_time config_pending config_change_error supported_list_max "
     "configure dump_sgot byte_count ...", true},
    {"stridn", "init enabled entry dump_valid_bit dump_counter", true},
    {"psfp", "mode capability init stream_filter stream_gate flow_meter", true},
    {"stk", "enable disable devsearch autocfg get set dump dbg test fwtest", true},
    {"testio", "set get smiget smiset testset testget", true},
    {"mdx", "init set get", false},
};

std::vector<std::string> split(const char *words) {
  std::vector<std::string> v;
  std::string cur;
  for (const char *p = words;; p++) {
    if (*p == ' ' || *p == '\0') {
      if (!cur.empty()) v.push_back(cur);
      cur.clear();
      if (!*p) return v;
    } else {
      cur += *p;
    }
  }
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

TEST(CommandTable, RowsAndFirstWords) {
  EXPECT_STREQ(hx5200_rootGroup.groupName, "HX5200");
  EXPECT_EQ(hx5200_rootGroup.cmds, hx5200_cmdTable);
  EXPECT_EQ(hx5200_rootGroup.cmdCount, 52);
  EXPECT_EQ(hx5200_rootGroup.subGroupCount, 0);
  for (size_t i = 0; i < 52; i++) {
    const kiv_cmd_t &row = hx5200_cmdTable[i];
    const RowWant &want = kRows[i];
    SCOPED_TRACE(std::to_string(i) + " " + want.name);
    EXPECT_STREQ(row.cmdName, want.name);
    EXPECT_EQ(row.cmdFlags, KIV_USECISCOCMDPARSER);
    EXPECT_LT(std::strlen(row.cmdUsage), static_cast<size_t>(MAX_CMD_TEMPBUFFER));
    EXPECT_EQ(row.cmdHandler == hx5200_cmd_notSupported, want.notSupported);
    std::vector<std::string> expect = split(want.words);
    std::vector<std::string> words = firstWords(&row);
    if (expect.back() == "...") {
      expect.pop_back();
      ASSERT_GT(words.size(), expect.size());
      words.resize(expect.size());
    }
    EXPECT_EQ(words, expect);
  }
  EXPECT_EQ(hx5200_cmdTable[21].cmdHandler, hx5200_cmdTable[24].cmdHandler);   // phy and gphy
  EXPECT_EQ(hx5200_cmdTable[22].cmdHandler, hx5200_cmd_init);
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
    const RowWant &want = kRows[i];
    if (!want.notSupported || i == 36) continue;   // row 36 is shadowed by row 18
    std::string word = split(want.words)[0];
    std::string line = std::string(want.name) + " " + (word == "%d" ? "0x10 20" : word);
    std::string shown = word == "%d" ? "16" : word;
    SCOPED_TRACE(line);
    LineResult r = engine_run(line);
    EXPECT_EQ(r.out, std::string(want.name) + " " + shown + ": not supported\nErrno : -1\n");
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
