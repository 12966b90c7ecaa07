// The dispatcher on tables of its own: tokeniser, lookup, listings, report lines, raw
// rows, completion and error rounds, groups with saved arguments, prompt, users.
#include <unistd.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "engine_fixture.h"

namespace {

using V = std::vector<std::string>;
V g_seen;   // what the handlers saw
kiv_int32 g_result = 0;

// Takes every value with kiv_getNextCmdToken: texts as they are, 4-byte values as "#n".
kiv_int32 recHandler(kiv_uint32, kiv_int32 argc, void **argv) {
  g_seen.push_back("argc=" + std::to_string(argc));
  void *v = nullptr;
  kiv_uint32 size = 0, n = 0;
  while (kiv_getNextCmdToken(argv, &v, &size) == 0)
    g_seen.push_back(size == 4 ? (std::memcpy(&n, v, 4), "#" + std::to_string(n)) : static_cast<const char *>(v));
  return g_result;
}
kiv_int32 rawHandler(kiv_uint32, kiv_int32 argc, void **argv) {
  g_seen.push_back("raw argc=" + std::to_string(argc));
  for (int i = 0; i < argc; i++) g_seen.push_back(reinterpret_cast<char **>(argv)[i]);
  return g_result;
}
kiv_int32 printHandler(kiv_uint32, kiv_int32, void **) { return printf("printed\n") < 0; }

constexpr kiv_cmd_t cisco(const char *name, const char *help, const char *usage, kiv_cmdFunc fn = recHandler,
                          kiv_uint16 extra = 0) {
  return kiv_cmd_t{name, help, usage, fn, static_cast<kiv_uint16>(KIV_USECISCOCMDPARSER | extra), 0, 0, 0, nullptr};
}

const kiv_cmd_t kPortCmds[] = {cisco("info", "port info", "{ brief'short' | detail'long' }")};
const kiv_cmd_t kBenchCmds[] = {cisco("probe", "probe the bench", "{}")};
const kiv_group_t kLabSubs[] = {{"bench", "bench group", nullptr, kBenchCmds, nullptr, 1, 0, 0}};
const kiv_cmd_t kLabCmds[] = {cisco("power", "power supply", "{ on'switch on' | off'switch off' }")};
const kiv_cmd_t kModeCmds[] = {cisco("stat", "statistics", "{}")};
const kiv_group_t kSubGroups[] = {
    {"lab", "lab tools", nullptr, kLabCmds, kLabSubs, 1, 1, 0},
    {"port", "one port", nullptr, kPortCmds, nullptr, 1, 0, KIV_GROUP_ENTRYARGS_N(2)},
    {"zmode", "mode with its own prompt", "zm", kModeCmds, nullptr, 1, 0, 0},
};
const kiv_cmd_t kCmds[] = {
    cisco("show", "show things", "{ all'all items' | %d'item number' }"),
    cisco("shutdown", "stop the box", "{ now'at once' | later'after a while' }"),
    {"raw", "raw tokens", "raw a b", rawHandler, 0, 3, 0, 0, nullptr},
    cisco("secret", "only for experts", "{}", recHandler, KIV_SHOW_0X40),
    cisco("empty", "nothing to type", "{}"),
    cisco("printer", "prints something", "{}", printHandler),
    cisco("multi", "one keyword group", "{ get'Get content of register' { %d'Address' } }"),
    cisco("dumper", "dump words", "{ dump'dump all' | dumplock'dump lock' | (1~3)%d'index' }"),
    cisco("addr", "addresses", "{ ip %ip | net %net | mac %mac | text %s }"),
};
const kiv_group_t kRoot = {"T", "test root", nullptr, kCmds, kSubGroups, 9, 3, 0};

const std::string kShowList = "\nall                       all items\n%d                        item number\n\n";
const std::string kDumpList = "\ndump                      dump all\ndumplock                  dump lock\n\n";
const std::string kIncomplete = "Incomplete command\nSuccess!!\n";

class Dispatch : public ::testing::Test {
 protected:
  void SetUp() override {
    engine_setUp(&kRoot);
    g_seen.clear();
    g_result = 0;
  }
  static V seen() { return std::exchange(g_seen, {}); }
  static void newUser(const char *name, kiv_uint32 flags) {
    ASSERT_EQ(kiv_init(1, 256, 256), 0);
    ASSERT_EQ(kiv_userInit(name, 1, flags, 4, &kRoot), 0u);
  }
};

std::string prompt(kiv_uint32 size = 64) {
  char buf[64];
  kiv_getPrompt(0, buf, size);
  return buf;
}

TEST_F(Dispatch, LookupAndReportLines) {
  engine_expect({{"show 7", "Success!!\n", 0},
                 {"shu now", "Success!!\n"},   // unique prefix
                 {"sh all", "\nshow\nshutdown\nambiguous command\n", -1},
                 {"nosuch 1", "Unknown command\n", -1},
                 {"   \t ", ""},
                 {"printer", "printed\nSuccess!!\n"},
                 {"secret", "Success!!\n"}});   // rows flagged 0x40: only for users with that flag
  EXPECT_EQ(seen(), (V{"argc=1", "#7", "argc=1", "now", "argc=0"}));
  EXPECT_EQ(engine_run("show").rc, 0);   // an incomplete line still succeeds
  // The completion flag silences the two messages (the list of names stays).
  engine_expect({{"nosuch", ""}, {"sh", "\nshow\nshutdown\n"}}, true);
  g_result = -7;
  engine_expect({{"empty", "Errno : -7\n", -1}});
  g_result = 0;

  newUser("plain", 0);
  EXPECT_EQ(engine_run("secret").out, "Unknown command\n");
  EXPECT_EQ(engine_run("ls").out.find("secret"), std::string::npos);
  // A user named "script" gets no success line and its failing line before the code.
  newUser("script", 0xC0);
  EXPECT_EQ(engine_run("show 3").out, "");
  g_result = -9;
  EXPECT_EQ(engine_run("show  \"7\"").out, "Script: show 7 Errno : -9\n");
}

TEST_F(Dispatch, RawRows) {
  engine_expect({{"raw one two", "Success!!\n"}});
  g_result = -3;
  // Too few tokens: by exact name silently refused, by prefix with the usage line.
  engine_expect({{"raw 1 2 3", "Errno : -3\n"}, {"raw x", ""}, {"ra x", "raw                  usage:raw a b\n"}});
  EXPECT_EQ(seen(), (V{"raw argc=3", "raw", "one", "two", "raw argc=4", "raw", "1", "2", "3"}));
  // Completion of a raw row puts the whole line into the output buffer.
  engine_expect({{"ra x y", "", kAnyRc, "raw x y"}}, true);
}

TEST_F(Dispatch, Tokeniser) {
  // Quotes keep blanks; a quote in a plain token restarts it; an open quote is dropped.
  engine_run("addr text \"two  words\"");
  engine_run("addr text ab\"c d\"");
  EXPECT_EQ(seen(), (V{"argc=2", "text", "two  words", "argc=2", "text", "c d"}));
  EXPECT_EQ(engine_run("addr text \"open").out, "\n%s                        \n\n" + kIncomplete);
  engine_run("\tdumper\t\t3  4");
  EXPECT_EQ(seen(), (V{"argc=2", "#3", "#4"}));   // repeated values arrive in order

  // A 255-character token is fine, 256 fail the line without a word.
  const std::string t255(255, 'x');
  engine_run("addr text " + t255);
  EXPECT_EQ(seen(), (V{"argc=2", "text", t255}));
  engine_expect({{"addr text " + t255 + "y", "", -1}});
  EXPECT_TRUE(seen().empty());

  // At most 255 tokens are kept; the rest of the line is dropped.
  std::string many = "show 1";
  for (int i = 0; i < 300; i++) many += " x";
  EXPECT_EQ(engine_run(many).out, "Success!!\n");   // surplus words after a complete command
  EXPECT_EQ(seen(), (V{"argc=1", "#1"}));
}

TEST_F(Dispatch, Listings) {
  EXPECT_EQ(engine_run("ls").out,
            "show                shutdown            raw                 \n"
            "secret              empty               printer             \n"
            "multi               dumper              addr                \n"
            "[lab]               [zmode]             \n");
  const std::string q = engine_run("?").out;
  EXPECT_EQ(q.substr(q.size() - 78), "\nlab                  lab tools\nzmode                mode with its own prompt\n");
  EXPECT_EQ(q.find("\t\t\tusage:"), std::string::npos);   // and no entry-argument group "port"
  const std::string help = engine_run("help").out;
  EXPECT_NE(help.find("raw                  raw tokens\n\t\t\tusage:raw a b\n"), std::string::npos);
  EXPECT_EQ(help.find("usage:{"), std::string::npos);   // grammar rows show no usage line

  // Help on a word: raw rows show help and usage, grammar rows what may follow.
  engine_expect({
      {"raw ?", "raw                  raw tokens\n                     usage: raw a b\n", kAnyRc, "raw "},
      {"shut help trailing words",   // the editor gets the word in full
       "\nnow                       at once\nlater                     after a while\n\n", kAnyRc, "shutdown "},
      {"lab ?", "power                power supply\nbench                bench group\n"},
      {"lab power ?", "\non                        switch on\noff                       switch off\n\n"},
      // A partial word.
      {"sh?", "show                 show things\nshutdown             stop the box\n", kAnyRc, "sh"},
      {"lab pow?", "power                power supply\n"},
      {"lab powe o?", "Unknown command\n"},   // the command word in full
  });
  EXPECT_TRUE(seen().empty());
}

TEST_F(Dispatch, BestMatchAndCompletion) {
  // A refused keyword with one prefix match is replaced and the line runs.
  EXPECT_EQ(engine_run("multi g 5").out, "1th token best matched for 'get'\nSuccess!!\n");
  // An exact keyword wins over a longer one; a prefix of both lists both.
  engine_run("dumper dump");
  EXPECT_EQ(seen(), (V{"argc=2", "get", "#5", "argc=1", "dump"}));
  EXPECT_EQ(engine_run("dumper du").out, kDumpList + kIncomplete);

  // Completion: a command word by prefix, a keyword, a group name; ambiguous or complete
  // words are listed as without the flag, the line kept.
  engine_expect({{"shu", "", -1, "shutdown"},
                 {"shutdown la", "", kAnyRc, "shutdown later"},
                 {"la", "", kAnyRc, "lab"},
                 {"dumper du", kDumpList + kIncomplete, kAnyRc, "dumper du"},
                 {"show", kShowList + kIncomplete, kAnyRc, "show"}},
                true);
  EXPECT_TRUE(seen().empty());
}

TEST_F(Dispatch, GroupsAndPrompt) {
  EXPECT_EQ(prompt(), "<T/>");
  // A group word (exact or by unique prefix) with a command: run inside, come back.
  engine_expect({{"lab power on", "Success!!\n"}, {"la power off", "Success!!\n"}});
  EXPECT_EQ(prompt(), "<T/>");
  // Entering and leaving ("show" is not in the group); a group with a prompt text of its own.
  engine_expect({{"lab", "", 0}, {"show 1", "Unknown command\n"}, {"bench", ""}});
  EXPECT_EQ(prompt(), "<T/lab/bench/>");
  EXPECT_EQ(engine_run("pro").out, "Success!!\n");   // "probe"
  EXPECT_EQ(prompt(8), "<prompt");   // too small: the error text, cut
  engine_run("..");
  engine_run("..");
  engine_run("zmode");
  EXPECT_EQ(prompt(), "<zm>");
  EXPECT_EQ(kiv_exitCmdGroup(0, -1), 0);
  EXPECT_EQ(kiv_exitCmdGroup(0, 0), -1);   // not below the depth
  EXPECT_EQ(prompt(), "<T/>");

  // Entry arguments come before the command's own values, and stay while the group is
  // entered; too few of them leave the group closed.
  engine_run("port 3 fast info detail");
  engine_run("port 7 slow");
  EXPECT_EQ(prompt(), "<T/port/>");
  engine_run("info brief");
  engine_run("..");
  engine_run("lab power off");
  EXPECT_EQ(engine_run("port 1").rc, -1);
  EXPECT_EQ(prompt(), "<T/>");
  EXPECT_EQ(seen(), (V{"argc=1", "on", "argc=1", "off", "argc=0", "argc=1", "3", "fast", "detail", "argc=1", "7", "slow",
                       "brief", "argc=1", "off"}));
  // The save stack's bound is checked before anything is written.
  const std::string big(130, 'b');
  const char *tooBig[] = {big.c_str(), "y"};
  kiv_uint32 count = 2;
  EXPECT_DEATH((dup2(2, 1), kiv_changeCmdGroup(0, "port", 0, reinterpret_cast<void **>(const_cast<char **>(tooBig)),
                                              &count)),
               "\nkiv/kiv_parser:kiv_changeCmdGroup:[0-9]+:'KIV_MAXDIRSTACKDEPTH - used >=required'");

  // The group stack bounds the depth.
  engine_setUp(&kRoot, 2);
  engine_expect({{"lab", "", 0}, {"bench", "", -1}});
  EXPECT_EQ(prompt(), "<T/lab/>");
}

TEST_F(Dispatch, IndexStringsAndUsers) {
  EXPECT_STREQ(kiv_index2string(0), "0");
  EXPECT_STREQ(kiv_index2string(199), "199");
  EXPECT_DEATH((dup2(2, 1), kiv_index2string(200)),
               "\nkiv/kiv_parser:kiv_index2string:[0-9]+:'index<KIV_INDEX2STRING_SIZE'");
  kiv_setNextGroupName("a-name-that-is-much-longer-than-thirty-two-bytes");
  EXPECT_EQ(kiv_userInit("3100", 1, 0, 4, &kRoot), KIV_NOUSER);   // registered already
  EXPECT_EQ(kiv_userInit("seventeen-chars!!", 1, 0, 4, &kRoot), KIV_NOUSER);
  ASSERT_EQ(kiv_init(2, 256, 256), 0);
  EXPECT_EQ(kiv_userInit("sixteen-chars!!!", 1, 0, 4, &kRoot), 0u);
  EXPECT_EQ(kiv_userInit("b", 1, 0, 4, &kRoot), 1u);
  EXPECT_EQ(kiv_userInit("c", 1, 0, 4, &kRoot), KIV_NOUSER);   // full
  char line[] = "show 1";
  EXPECT_EQ(kiv_cmdProcess(5, line, kiv_outputBuffer, KIV_OUTBUF_SIZE), -1);   // no such user
}

}  // namespace
