// The shipped command table (rows, help texts, the first words each grammar offers, the
// rows the tool does not provide) and whole transcripts of the tool on the simulated
// board, compared byte for byte.
#include <gtest/gtest.h>

#include <cstring>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "engine_fixture.h"
#include "internal/kivcmd/hx5200_cmd.h"
#include "kiv/kiv_ciscoParser.h"
#include "tool_output.h"

namespace {

using V = std::vector<std::string>;

// Each row: name, help text, the first words its grammar offers (in order; "..." at the
// end when it offers more), and whether the tool does not provide the row's behaviour.
struct RowWant {
  const char *name;
  const char *help;
  const char *words;
  bool notSupported;
};

constexpr RowWant kRows[52] = {
    {"reg", "Register read/write access", "set get setbit getbit setbits getbits getburst chgpage indirset "
     "indirget", false},
    {"mib", "mib counter", "enable read sys lag route sread dread dumpreg rwaketest clear clearall", false},
    {"spi", "SPI Flash read/write and image update, default is 16bit flash. These command need stop and reset CPU.",
     "read write erase update updatecfg cal auto setsysdly getsysdly setspd getspd setch getch rdsr rdcr rdid wrsr "
     "wren wrdi dumptobin clearprotect pgwithbase pg0861flash pg0861flash2 verifywithbase verify", false},
    {"set", "set kiv configuration", "regif mibfmt mdxid i2cid autocal chipver rwake reset portmode portmodeinternal "
     "savecontest wrimage wrrotcfg wrpatch wrptpconfig wrfwconfig wrrotconfig getcontest setest read36ktest "
     "read04ktest write04ktest e0tdly e0rdly spich spispd spils", false},
    {"get", "get switch status", "fwver chipver", false},
    {"vlan", "access vlan table", "set get dump init mode pvid igfilter egfilter igretag egretag", false},
    {"qos", "qos test", "init portPriority priToQueueMapping queueProperty", true},
    {"igrate", "Ingress rate control.", "gap all %d", true},
    {"egrate", "Egress rate control.", "gap all %d", true},
    {"are", "check and show myself", "you ok", true},
    {"dot1x", "802.1X", "get set", true},
    {"lacp", "Link Aggregation Control Protocol", "init get set", true},
    {"la", "Link Aggregation", "init get set", true},
    {"tai", "International Atomic Time Function", "phy mac", true},
    {"pcpremarking", "PCP remarking config", "decidecfg tx rx", true},
    {"gptp", "ptp configurations", "get reset set hw status control dumpMib log time pid adj assigntime mib cns", true},
    {"dump", "Dump ASIC/FPGA table Information", "acl action template counter group validl2 macaddress bintoreg lutcam "
     "policer vlan hsb ppi pmi nic rxqueue portcfg l3hosttbl l3hashidx igriftbl netroutetbl egriftbl nhtbl rhtbl "
     "mccoltbl oiltbl l3status", true},
    {"l2table", "L2 Table Control Command", "alg0 alg1 findsa enstatic disstatic endablk disdablk ensablk dissablk "
     "lrate firstcol dump dumpcam setstatic", true},
    {"sram", "sram read/write", "read write fwcget fwcset rottblget rottblset rotintfget rotintfset update "
     "dumpsramtobin", true},
    {"aclset", "allow sa pass from port#", "allowsa", true},
    {"reset", "reset", "asic chip cpu hw switch sw nic flashctrl sys", true},
    {"phy", "phy read/write access", "r rc read write testmode rtpgetm phyreset reset enable role autopolarity linkst "
     "outputlinkst pktgen channel ocp2reg mdc2reg", false},
    {"init", "initialize the switch", "<cr>", false},
    {"smi", "SMI interface Register read/write access", "set get brdset extaccess channel", false},
    {"gphy", "read giga phy extension register", "readext writeext", false},
    {"t18", "T18 command", "dft vo9", true},
    {"stp", "stp test", "get set", true},
    {"asictest", "ASIC/FPGA testing cases", "%d", true},
    {"dos", "Deny of Service prevention configuration", "all daeqsa icmpFrag icmpv4PingMax icmpv6PingMax land nullscan "
     "pod smurf synfin synSportL1024 tcpblat tcpHdrMin udpblat xmas synflood", true},
    {"drivertest", "SDK/driver testing cases", "all %d", true},
    {"wol", "WOL function", "intr_set intr_stat_clear intr_stat_get", true},
    {"via", "VIAROM image update. These command need stop and reset CPU.", "update verify", true},
    {"brom", "BootRom image update. These command need stop and reset CPU.", "update verify", true},
    {"efuse", "efuse content  update. These command need stop and reset CPU.", "update pat00 write programtest "
     "verifytest dump", true},
    {"otp", "otp content  update. These command need stop and reset CPU.", "init repair write writelock writebin read "
     "dump dumpMargin dumpMarginAll dumplock dumptest check", true},
    {"sys", "system configuration and parameter get", "fwver write update verify", true},
    {"sram", "sram read/write", "read write vget vset fwcget fwcset", true},
    {"nic", "Run testcases according to your select. ", "all %d", true},
    {"ckdigrtt", "CKDIG_RTT command", "25m 125m 66m off default", true},
    {"acl", "Access Command line", "redirect itag otag dscprmk prirmk ruletbwr ruletbrd ruletbdel reset", true},
    {"mmd", "mmd register read/write access", "read write", false},
    {"macif", "mac interface for Port 4, 5, 6, 7, 8, 9, 10 and 11", "set get", true},
    {"srp", "Stream reservation administration control", "msrp mvrp qav manual", true},
    {"serdes", "Serdes read/write access", "setbits getbits", true},
    {"pcie", "PCIe read/write access", "setnic testioread testiowrite ocdread ocdwrite emacread emacwrite fpgaephyread "
     "fpgaephywrite", true},
    {"fqtss", "IEEE 802.1Qav Forwarding and Queuing Enhancements for Time-Sensitive Streams", "admin_idle_slope "
     "trans_sel_algorithm pri_regen_table pri_regen_tag_sel ...", true},
    {"st", "IEEE 802.1Qbv Enhancements for Scheduled Traffic", "queue_max_SDU transmission_overrun gate_enabled "
     "gate_states control_list_length control_list cycle_time cycle_time_extension base_time config_change "
     "config_change_time tick_granularity current_time config_pending config_change_error supported_list_max configure "
     "dump_sgot byte_count ...", true},
    {"stridn", "TSN stream identification function for psfp(IEEE 802.1 Qci) and frer(IEEE 802.1 CB).", "init enabled "
     "entry dump_valid_bit dump_counter", true},
    {"psfp", "IEEE 802.1Qci Per Stream Filtering and Policying", "mode capability init stream_filter stream_gate "
     "flow_meter", true},
    {"stk", "Stacking Function", "enable disable devsearch autocfg get set dump dbg test fwtest", true},
    {"testio", "testio mode MDC/MDIO access", "set get smiget smiset testset testget", true},
    {"mdx", "External PHY register read/write access", "init set get", false},
};

V split(const char *words) {
  std::istringstream in(words);
  return V(std::istream_iterator<std::string>(in), {});
}

// The words a row's grammar offers before anything is typed.
V firstWords(const kiv_cmd_t *row) {
  const kiv_cmd_t *cmd = row;
  void *saved = nullptr;
  char *token = nullptr;
  char *argv[1] = {nullptr};
  V words;
  if (ciscoCmdParser(0, argv, &cmd, &saved, &token) == 0) words.push_back("<cr>");
  kiv_candEntry_t entries[256];
  const kiv_uint32 total = words.empty() ? ciscoCmdParserListCandidates(entries, 256) : 0;
  for (kiv_uint32 i = 0; i < total; i++) words.push_back(entries[i].text);
  ciscoCmdParserReset();
  return words;
}

// One-shot run: the words as program arguments; the text after the start-up lines.
std::string oneShot(V args) {
  ToolRun r;
  r.args = std::move(args);
  return tool_output(r);
}

TEST(CommandTable, RowsFirstWordsAndHelpListing) {
  std::string listing, ls;
  for (size_t i = 0; i < 52; i++) {
    const kiv_cmd_t &row = hx5200_cmdTable[i];
    const RowWant &want = kRows[i];
    SCOPED_TRACE(std::to_string(i) + " " + want.name);
    EXPECT_EQ(row.cmdFlags, KIV_USECISCOCMDPARSER);
    EXPECT_EQ(row.cmdHandler == hx5200_cmd_notSupported, want.notSupported);
    V expect = split(want.words), words = firstWords(&row);
    if (expect.back() == "...") {
      expect.pop_back();
      ASSERT_GT(words.size(), expect.size());
      words.resize(expect.size());
    }
    EXPECT_EQ(words, expect);
    listing += std::string(want.name) + std::string(21 - std::strlen(want.name), ' ') + want.help + "\n";
    ls += std::string(want.name) + std::string(20 - std::strlen(want.name), ' ') + (i % 3 == 2 || i == 51 ? "\n" : "");
  }
  // Names and help texts exactly as listed; "help" shows no usage for grammar rows; "ls"
  // shows the names three to a line.
  EXPECT_EQ(oneShot({"?"}), listing);
  EXPECT_EQ(oneShot({"help"}), listing);
  EXPECT_EQ(oneShot({"ls"}), ls);
}

// Each family's subcommand table has one row per first word of its grammar and no other
// (rows sharing a handler share the table); only the rows the tool does not provide have
// no table. The table's graphs are compiled once and all fit the parser's arenas.
TEST(CommandTable, SubcommandTablesMatchTheirGrammars) {
  ciscoCmdParserKeepRows(hx5200_cmdTable, 52);
  std::map<kiv_cmdFunc, std::set<std::string>> grammarWords;
  for (const kiv_cmd_t &row : hx5200_cmdTable) {
    const V words = firstWords(&row);
    if (hx5200_subWords(row.cmdHandler) == nullptr)
      EXPECT_TRUE(row.cmdHandler == hx5200_cmd_notSupported || row.cmdHandler == hx5200_cmd_init) << row.cmdName;
    else
      for (const std::string &w : words)
        if (w[0] != '%' && w != "<cr>") grammarWords[row.cmdHandler].insert(w);
  }
  EXPECT_EQ(ciscoCmdParserKeptGraphs(), 52u);
  ciscoCmdParserDropKeptRows();
  EXPECT_EQ(grammarWords.size(), 10u);
  for (const auto &[handler, words] : grammarWords) {
    const cmd_subWords_t *table = hx5200_subWords(handler);
    std::set<std::string> rows;
    for (size_t i = 0; i < table->count; i++)
      EXPECT_TRUE(rows.insert(std::string(table->word(i))).second) << "two rows for " << table->word(i);
    EXPECT_EQ(rows, words) << *words.begin();
  }
}

TEST(CommandTable, Hx3100Group) {
  EXPECT_STREQ(hx3100_group.groupHelp, "HX3100 command line interface");
  EXPECT_STREQ(hx3100_group.cmds[0].cmdHelp, "read/write io address");
  EXPECT_EQ(firstWords(&hx3100_group.cmds[0]), (V{"read", "write"}));
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
    const std::string word = split(want.words)[0];
    SCOPED_TRACE(want.name);
    const LineResult r = engine_run(std::string(want.name) + " " + (word == "%d" ? "0x10 20" : word));
    EXPECT_EQ(r.out, std::string(want.name) + " " + (word == "%d" ? "16" : word) + ": not supported\nErrno : -1\n");
    EXPECT_EQ(r.rc, -1);
  }
  EXPECT_EQ(engine_run("pcp tx").out, "pcpremarking tx: not supported\nErrno : -1\n");
  EXPECT_EQ(engine_run("init").out, "init: not supported\nErrno : -1\n");
  // "sram" always means row 18: row 36's words are refused.
  EXPECT_NE(engine_run("sram vget").out.find("Error on 1th token 'vget'"), std::string::npos);
}

const std::string kRegList =
    "\nset                       Set content of register\n"
    "get                       Get content of register\n"
    "setbit                    Set bit value of register\n"
    "getbit                    Get bit value of register\n"
    "setbits                   Set bits value of register\n"
    "getbits                   Get bits value of register\n"
    "getburst                  Get content of register\n"
    "chgpage                   Change page\n"
    "indirset                  Set content of register\n"
    "indirget                  Get content of register\n\n";
const std::string kIncomplete = "Incomplete command\nSuccess!!\n";
const std::string kCr = "<cr>                      Acceptable command. Press <Return> to commit command...\n";

TEST(Transcripts, Listings) {
  EXPECT_EQ(oneShot({"reg", "?"}), kRegList);
  EXPECT_EQ(oneShot({"reg", "get", "?"}), "\n%d                        Address\n\n");
  EXPECT_EQ(oneShot({"reg", "get", "5", "?"}), "\n" + kCr + "\n");
  EXPECT_EQ(oneShot({"init", "?"}), kCr);
  EXPECT_EQ(oneShot({"vl", "?"}).substr(0, 45), "\nset                       set vlan entry\nget");
  EXPECT_EQ(oneShot({"re", "?"}), "ambiguous command\n");
  // A partial word: alone, the commands it begins; after a command, its next words.
  EXPECT_EQ(oneShot({"re?"}), "reg                  Register read/write access\nreset                reset\n");
  EXPECT_EQ(oneShot({"reg", "getb?"}),
            "\ngetbit                    Get bit value of register\n"
            "getbits                   Get bits value of register\n"
            "getburst                  Get content of register\n\n");
  EXPECT_EQ(oneShot({"reg", "chg?"}).substr(0, 41), "1th token best matched for 'chgpage'\n\naxi");
  // Help on a partial word takes the command by its full name only.
  EXPECT_EQ(oneShot({"vl", "se?"}), "Unknown command\n");
  EXPECT_EQ(oneShot({"re", "se?"}), "ambiguous command\n");
  EXPECT_EQ(oneShot({"zz?"}), "Unknown command\n");
}

TEST(Transcripts, LookupAndErrors) {
  EXPECT_EQ(oneShot({"re"}), "\nreg\nreset\nambiguous command\n");
  EXPECT_EQ(oneShot({"sra"}), "\nsram\nsram\nambiguous command\n");   // both rows count
  EXPECT_EQ(oneShot({"reg"}), kRegList + kIncomplete);
  EXPECT_EQ(oneShot({"vl", "get"}), "\n%d                        vlan id\n\n" + kIncomplete);
  EXPECT_EQ(oneShot({"nosuch"}), "Unknown command\n");
  EXPECT_EQ(oneShot({"reg", "foo"}), "\nError on 1th token 'foo'\n\n" + kRegList + kIncomplete);
  EXPECT_EQ(oneShot({"reg", "get", "x1"}),
            "\nError on 2th token 'x1'\n\n\n%d                        Address\n\n" + kIncomplete);
  EXPECT_EQ(oneShot({"reg", "g", "5"}),   // several keywords begin with "g": listed, not run
            "\nget                       Get content of register\n"
            "getbit                    Get bit value of register\n"
            "getbits                   Get bits value of register\n"
            "getburst                  Get content of register\n\n" + kIncomplete);
  EXPECT_EQ(oneShot({"qos", "i"}), "1th token best matched for 'init'\nqos init: not supported\nErrno : -1\n");
  EXPECT_EQ(oneShot({"qos", "Queue"}),
            "\n1th token best matched for 'priToQueueMapping'\nqos priToQueueMapping: not supported\nErrno : -1\n");
  EXPECT_EQ(oneShot({"qos", "it"}), "\n\n" + kIncomplete);   // two contain "it", none begins with it
  // A surplus word: after a complete empty command it is refused as the 0th token, after a
  // complete command the end is the only continuation and it is ignored.
  EXPECT_EQ(oneShot({"init", "foo"}), "\nError on 0th token 'foo'\n\n\n" + kCr + "\n" + kIncomplete);
  EXPECT_EQ(oneShot({"reg", "get", "5", "foo", "?"}), "\nError on -2th token 'foo'\n\n\n" + kCr + "\n");
  // A prefix of "%d" is rewritten once and then reported instead of looping.
  EXPECT_EQ(oneShot({"asictest", "%"}), "1th token best matched for '%d'\n\nError on 1th token '%d'\n\n\n"
                                        "%d                        first case number\n\n" + kIncomplete);
}

TEST(Transcripts, PipedSession) {
  ToolRun r;
  r.input = "qos \"init\"\n\"qos init\"\n..\n exit \n\n" + std::string(256, 'x') + "\nare you\r\nexit\nare ok\n";
  EXPECT_EQ(tool_output(r), "qos init: not supported\nErrno : -1\n"
                            "Unknown command\nUnknown command\nUnknown command\n"
                            "are you: not supported\nErrno : -1\n");
}

}  // namespace
