// The dispatcher on tables of its own: tokeniser, lookup, listings, report lines,
// completion and error rounds, groups with saved arguments, prompt.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "engine_fixture.h"

namespace {

// What the handlers saw.
std::vector<std::string> g_seen;
kiv_int32 g_result = 0;

// Takes every value with kiv_getNextCmdToken: texts as they are, 4-byte values as "#n".
kiv_int32 recHandler(kiv_uint32, kiv_int32 argc, void **argv) {
  g_seen.push_back("argc=" + std::to_string(argc));
  void *v = nullptr;
  kiv_uint32 size = 0;
  while (kiv_getNextCmdToken(argv, &v, &size) == 0) {
    if (size == 4) {
      kiv_uint32 n;
      std::memcpy(&n, v, 4);
      g_seen.push_back("#" + std::to_string(n));
    } else {
      g_seen.push_back(static_cast<const char *>(v));
    }
  }
  return g_result;
}

kiv_int32 rawHandler(kiv_uint32, kiv_int32 argc, void **argv) {
  g_seen.push_back("raw argc=" + std::to_string(argc));
  char **tokens = reinterpret_cast<char **>(argv);
  for (int i = 0; i < argc; i++) g_seen.push_back(tokens[i]);
  return g_result;
}

kiv_int32 printHandler(kiv_uint32, kiv_int32, void **) {
  printf("printed\n");
  return 0;
}

constexpr kiv_cmd_t cisco(const char *name, const char *help, const char *usage,
                          kiv_cmdFunc fn = recHandler, kiv_uint16 extra = 0) {
  return kiv_cmd_t{name, help, usage, fn, static_cast<kiv_uint16>(KIV_USECISCOCMDPARSER | extra),
                   0, 0, 0, nullptr};
}

const kiv_cmd_t kPortCmds[] = {
    cisco("info", "port info", "{ brief'short' | detail'long' }"),
};
const kiv_cmd_t kBenchCmds[] = {
    cisco("probe", "probe the bench", "{}"),
};
const kiv_group_t kLabSubs[] = {
    {"bench", "bench group", nullptr, kBenchCmds, nullptr, 1, 0, 0},
};
const kiv_cmd_t kLabCmds[] = {
    cisco("power", "power supply", "{ on'switch on' | off'switch off' }"),
};
const kiv_cmd_t kModeCmds[] = {
    cisco("stat", "statistics", "{}"),
};

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

class Dispatch : public ::testing::Test {
 protected:
  void SetUp() override {
    engine_setUp(&kRoot);
    g_seen.clear();
    g_result = 0;
  }
  std::vector<std::string> seen() {
    auto s = g_seen;
    g_seen.clear();
    return s;
  }
};

using V = std::vector<std::string>;

TEST_F(Dispatch, ExactPrefixUnknownAmbiguous) {
  LineResult r = engine_run("show 7");
  EXPECT_EQ(r.out, "Success!!\n");
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(seen(), (V{"argc=1", "#7"}));

  r = engine_run("shu now");   // unique prefix
  EXPECT_EQ(r.out, "Success!!\n");
  EXPECT_EQ(seen(), (V{"argc=1", "now"}));

  r = engine_run("sh all");
  EXPECT_EQ(r.out, "\nshow\nshutdown\nambiguous command\n");
  EXPECT_EQ(r.rc, -1);
  EXPECT_TRUE(seen().empty());

  r = engine_run("nosuch 1");
  EXPECT_EQ(r.out, "Unknown command\n");
  EXPECT_EQ(r.rc, -1);
  EXPECT_EQ(engine_run("..").out, "Unknown command\n");   // at the root ".." is a word
  EXPECT_EQ(engine_run(" exit ").out, "Unknown command\n");
  EXPECT_EQ(engine_run("").out, "");
  EXPECT_EQ(engine_run("   \t ").rc, -1);

  // The completion flag silences the two messages (the list of names stays).
  EXPECT_EQ(engine_run("nosuch", true).out, "");
  EXPECT_EQ(engine_run("sh", true).out, "\nshow\nshutdown\n");
}

TEST_F(Dispatch, ReportLines) {
  g_result = -7;
  LineResult r = engine_run("empty");
  EXPECT_EQ(r.out, "Errno : -7\n");
  EXPECT_EQ(r.rc, -1);
  g_result = 0;
  EXPECT_EQ(engine_run("printer").out, "printed\nSuccess!!\n");
  EXPECT_EQ(seen(), (V{"argc=0"}));
  // "Incomplete command" after a listing of an incomplete line, then the success line.
  r = engine_run("show");
  EXPECT_EQ(r.out,
            "\nall                       all items\n%d                        item number\n\n"
            "Incomplete command\nSuccess!!\n");
  EXPECT_EQ(r.rc, 0);
  EXPECT_TRUE(seen().empty());
}

TEST_F(Dispatch, ScriptUser) {
  ASSERT_EQ(kiv_init(1, 256, 256), 0);
  ASSERT_EQ(kiv_userInit("script", 1, 0xC0, 4, &kRoot), 0u);
  EXPECT_EQ(engine_run("show 3").out, "");   // no success line for scripts
  g_result = -9;
  EXPECT_EQ(engine_run("show  \"7\"").out, "Script: show 7 Errno : -9\n");
}

TEST_F(Dispatch, RawRows) {
  LineResult r = engine_run("raw one two");
  EXPECT_EQ(r.out, "Success!!\n");
  EXPECT_EQ(seen(), (V{"raw argc=3", "raw", "one", "two"}));
  g_result = -3;
  EXPECT_EQ(engine_run("raw 1 2 3").out, "Errno : -3\n");
  EXPECT_EQ(seen(), (V{"raw argc=4", "raw", "1", "2", "3"}));
  // Too few tokens: by exact name silently refused, by prefix with the usage line.
  EXPECT_EQ(engine_run("raw x").out, "");
  EXPECT_EQ(engine_run("ra x").out, "raw                  usage:raw a b\n");
  EXPECT_TRUE(seen().empty());
  // Completion of a raw row puts the whole line into the output buffer.
  r = engine_run("ra x y", true);
  EXPECT_EQ(r.buf, "raw x y");
  EXPECT_EQ(r.out, "");
}

TEST_F(Dispatch, Tokeniser) {
  // Quotes keep blanks; a quote in a plain token restarts it; an open quote is dropped.
  engine_run("addr text \"two  words\"");
  EXPECT_EQ(seen(), (V{"argc=2", "text", "two  words"}));
  engine_run("addr text ab\"c d\"");
  EXPECT_EQ(seen(), (V{"argc=2", "text", "c d"}));
  LineResult r = engine_run("addr text \"open");
  EXPECT_NE(r.out.find("Incomplete command"), std::string::npos);
  EXPECT_TRUE(seen().empty());
  engine_run("\tdumper\t\t3  4");
  EXPECT_EQ(seen(), (V{"argc=2", "#3", "#4"}));   // repeated values arrive in order

  // A 255-character token is fine, 256 fail the line without a word.
  const std::string t255(255, 'x');
  engine_run("addr text " + t255);
  EXPECT_EQ(seen(), (V{"argc=2", "text", t255}));
  r = engine_run("addr text " + t255 + "y");
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.rc, -1);
  EXPECT_TRUE(seen().empty());

  // At most 255 tokens are kept; the rest of the line is dropped.
  std::string many = "show 1";
  for (int i = 0; i < 300; i++) many += " x";
  r = engine_run(many);
  EXPECT_EQ(r.out, "Success!!\n");   // surplus words after a complete command are ignored
  EXPECT_EQ(seen(), (V{"argc=1", "#1"}));
}

TEST_F(Dispatch, Listings) {
  const std::string ls = engine_run("ls").out;
  EXPECT_EQ(ls,
            "show                shutdown            raw                 \n"
            "secret              empty               printer             \n"
            "multi               dumper              addr                \n"
            "[lab]               [zmode]             \n");
  EXPECT_EQ(engine_run("ls").rc, 0);
  const std::string q = engine_run("?").out;
  EXPECT_EQ(q.rfind("show                 show things\nshutdown             stop the box\n", 0), 0u);
  EXPECT_NE(q.find("\nlab                  lab tools\nzmode                mode with its own prompt\n"),
            std::string::npos);
  EXPECT_EQ(q.find("port"), std::string::npos);   // entry-argument groups are not listed
  EXPECT_EQ(q.find("\t\t\tusage:"), std::string::npos);
  const std::string help = engine_run("help").out;
  EXPECT_NE(help.find("raw                  raw tokens\n\t\t\tusage:raw a b\n"), std::string::npos);
  EXPECT_EQ(help.find("usage:{"), std::string::npos);   // grammar rows show no usage line

  // Help on a word: raw rows show help and usage, grammar rows what may follow.
  LineResult r = engine_run("raw ?");
  EXPECT_EQ(r.out, "raw                  raw tokens\n                     usage: raw a b\n");
  EXPECT_EQ(r.buf, "raw ");
  r = engine_run("show ? trailing words");
  EXPECT_EQ(r.out, "\nall                       all items\n%d                        item number\n\n");
  EXPECT_EQ(r.buf, "show ");
  EXPECT_EQ(engine_run("shut help").out,
            "\nnow                       at once\nlater                     after a while\n\n");
  EXPECT_EQ(engine_run("show 5 ?").out,
            "\n<cr>                      Acceptable command. Press <Return> to commit command...\n\n");
  EXPECT_EQ(engine_run("empty ?").out,
            "<cr>                      Acceptable command. Press <Return> to commit command...\n");
  EXPECT_EQ(engine_run("nope ?").out, "Unknown command\n");
  EXPECT_EQ(engine_run("sh ?").out, "ambiguous command\n");
  EXPECT_EQ(engine_run("lab ?").out,
            "power                power supply\nbench                bench group\n");
  EXPECT_EQ(engine_run("lab power ?").out,
            "\non                        switch on\noff                       switch off\n\n");
  EXPECT_TRUE(seen().empty());

  // A partial word.
  r = engine_run("sh?");
  EXPECT_EQ(r.out, "show                 show things\nshutdown             stop the box\n");
  EXPECT_EQ(r.buf, "sh");
  EXPECT_EQ(engine_run("qq?").out, "Unknown command\n");
  r = engine_run("dumper du?");
  EXPECT_EQ(r.out, "\ndump                      dump all\ndumplock                  dump lock\n\n");
  EXPECT_EQ(engine_run("dumper dump?").out,
            "\n<cr>                      Acceptable command. Press <Return> to commit command...\n\n");
}

TEST_F(Dispatch, Visibility) {
  EXPECT_EQ(engine_run("secret").out, "Success!!\n");
  ASSERT_EQ(kiv_init(1, 256, 256), 0);
  ASSERT_EQ(kiv_userInit("plain", 1, 0, 4, &kRoot), 0u);
  EXPECT_EQ(engine_run("secret").out, "Unknown command\n");
  EXPECT_EQ(engine_run("ls").out.find("secret"), std::string::npos);
}

TEST_F(Dispatch, BestMatchRounds) {
  // A refused keyword with one prefix match is replaced and the line runs.
  LineResult r = engine_run("multi g 5");
  EXPECT_EQ(r.out, "1th token best matched for 'get'\nSuccess!!\n");
  EXPECT_EQ(seen(), (V{"argc=2", "get", "#5"}));
  // An exact keyword wins over a longer one; a prefix of both lists both.
  engine_run("dumper dump");
  EXPECT_EQ(seen(), (V{"argc=1", "dump"}));
  r = engine_run("dumper du");
  EXPECT_EQ(r.out,
            "\ndump                      dump all\ndumplock                  dump lock\n\n"
            "Incomplete command\nSuccess!!\n");
  EXPECT_TRUE(seen().empty());
  // Several contain the token but none begins with it: only the newlines.
  r = engine_run("dumper um");
  EXPECT_EQ(r.out, "\n\nIncomplete command\nSuccess!!\n");
}

TEST_F(Dispatch, Completion) {
  LineResult r = engine_run("shu", true);   // command word by prefix
  EXPECT_EQ(r.buf, "shutdown");
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.rc, -1);
  r = engine_run("shutdown la", true);   // a keyword
  EXPECT_EQ(r.buf, "shutdown later");
  EXPECT_EQ(r.out, "");
  // Ambiguous: list and keep the line. The listing counts as an incomplete command, as
  // it does without the completion flag.
  r = engine_run("dumper du", true);
  EXPECT_EQ(r.out,
            "\ndump                      dump all\ndumplock                  dump lock\n\n"
            "Incomplete command\nSuccess!!\n");
  EXPECT_EQ(r.buf, "dumper du");
  r = engine_run("show", true);          // complete word: what may follow
  EXPECT_EQ(r.out,
            "\nall                       all items\n%d                        item number\n\n"
            "Incomplete command\nSuccess!!\n");
  EXPECT_EQ(r.buf, "show");
  r = engine_run("la", true);            // a group name
  EXPECT_EQ(r.buf, "lab");
  EXPECT_TRUE(seen().empty());
}

TEST_F(Dispatch, GroupsAndPrompt) {
  char prompt[64];
  ASSERT_EQ(kiv_getPrompt(0, prompt, sizeof prompt), 0);
  EXPECT_STREQ(prompt, "<T/>");

  // A group word with a command: run inside, come back.
  EXPECT_EQ(engine_run("lab power on").out, "Success!!\n");
  EXPECT_EQ(seen(), (V{"argc=1", "on"}));
  kiv_getPrompt(0, prompt, sizeof prompt);
  EXPECT_STREQ(prompt, "<T/>");

  // A group by unique prefix.
  EXPECT_EQ(engine_run("la power off").out, "Success!!\n");
  EXPECT_EQ(seen(), (V{"argc=1", "off"}));

  // Entering and leaving.
  LineResult r = engine_run("lab");
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.rc, 0);
  kiv_getPrompt(0, prompt, sizeof prompt);
  EXPECT_STREQ(prompt, "<T/lab/>");
  EXPECT_EQ(engine_run("bench probe").out, "Success!!\n");
  EXPECT_EQ(engine_run("show 1").out, "Unknown command\n");   // not in this group
  engine_run("bench");
  kiv_getPrompt(0, prompt, sizeof prompt);
  EXPECT_STREQ(prompt, "<T/lab/bench/>");
  EXPECT_EQ(engine_run("pro").out, "Success!!\n");
  EXPECT_STREQ((kiv_getPrompt(0, prompt, 8), prompt), "<prompt");   // too small: error text cut
  EXPECT_EQ(kiv_getPrompt(0, prompt, 8), -1);
  engine_run("..");
  engine_run("..");
  kiv_getPrompt(0, prompt, sizeof prompt);
  EXPECT_STREQ(prompt, "<T/>");

  // A group with a prompt text of its own.
  engine_run("zmode");
  kiv_getPrompt(0, prompt, sizeof prompt);
  EXPECT_STREQ(prompt, "<zm>");
  EXPECT_EQ(kiv_exitCmdGroup(0, -1), 0);
  EXPECT_EQ(kiv_exitCmdGroup(0, 0), -1);   // not below the depth
  kiv_getPrompt(0, prompt, sizeof prompt);
  EXPECT_STREQ(prompt, "<T/>");
}

TEST_F(Dispatch, DepthIsBounded) {
  engine_setUp(&kRoot, 2);
  EXPECT_EQ(engine_run("lab").rc, 0);
  LineResult r = engine_run("bench");
  EXPECT_EQ(r.rc, -1);
  EXPECT_EQ(r.out, "");
  char prompt[64];
  kiv_getPrompt(0, prompt, sizeof prompt);
  EXPECT_STREQ(prompt, "<T/lab/>");
}

TEST_F(Dispatch, EntryArgumentGroups) {
  // Arguments given with the group word come before the command's own values.
  EXPECT_EQ(engine_run("port 3 fast info detail").out, "Success!!\n");
  EXPECT_EQ(seen(), (V{"argc=1", "3", "fast", "detail"}));

  // Entered: the saved arguments stay for every command until the group is left.
  engine_run("port 7 slow");
  char prompt[64];
  kiv_getPrompt(0, prompt, sizeof prompt);
  EXPECT_STREQ(prompt, "<T/port/>");
  engine_run("info brief");
  EXPECT_EQ(seen(), (V{"argc=1", "7", "slow", "brief"}));
  engine_run("info detail");
  EXPECT_EQ(seen(), (V{"argc=1", "7", "slow", "detail"}));
  engine_run("..");
  kiv_getPrompt(0, prompt, sizeof prompt);
  EXPECT_STREQ(prompt, "<T/>");
  engine_run("lab power off");
  EXPECT_EQ(seen(), (V{"argc=1", "off"}));   // nothing saved is left over

  // Too few entry arguments: the group is not entered.
  EXPECT_EQ(engine_run("port 1").rc, -1);
  kiv_getPrompt(0, prompt, sizeof prompt);
  EXPECT_STREQ(prompt, "<T/>");
}

TEST_F(Dispatch, SaveStackApi) {
  const char *args[] = {"abcdefg", "x"};
  kiv_uint32 count = 2;
  EXPECT_EQ(kiv_changeCmdGroup(0, "port", 0, reinterpret_cast<void **>(const_cast<char **>(args)), &count), 1);
  EXPECT_EQ(count, 2u);
  count = 0;
  EXPECT_EQ(kiv_changeCmdGroup(0, "nosuch", 0, nullptr, &count), -1);
  // The stack bound is checked before anything is written.
  std::string big(130, 'b');
  const char *tooBig[] = {big.c_str(), "y"};
  count = 2;
  EXPECT_EQ(kiv_exitCmdGroup(0, 0), 0);
  EXPECT_DEATH((dup2(2, 1), kiv_changeCmdGroup(0, "port", 0,
                                              reinterpret_cast<void **>(const_cast<char **>(tooBig)), &count)),
               "\nkiv/kiv_parser:kiv_changeCmdGroup:[0-9]+:'KIV_MAXDIRSTACKDEPTH - used >=required'");
}

TEST_F(Dispatch, IndexStringsAndChecks) {
  EXPECT_STREQ(kiv_index2string(0), "0");
  EXPECT_STREQ(kiv_index2string(199), "199");
  EXPECT_DEATH((dup2(2, 1), kiv_index2string(200)),
               "\nkiv/kiv_parser:kiv_index2string:[0-9]+:'index<KIV_INDEX2STRING_SIZE'");
  kiv_setNextGroupName("a-name-that-is-much-longer-than-thirty-two-bytes");
  EXPECT_EQ(kiv_userInit("3100", 1, 0, 4, &kRoot), KIV_NOUSER);            // registered already
  EXPECT_EQ(kiv_userInit("seventeen-chars!!", 1, 0, 4, &kRoot), KIV_NOUSER);
  ASSERT_EQ(kiv_init(2, 256, 256), 0);
  EXPECT_EQ(kiv_userInit("sixteen-chars!!!", 1, 0, 4, &kRoot), 0u);
  EXPECT_EQ(kiv_userInit("b", 1, 0, 4, &kRoot), 1u);
  EXPECT_EQ(kiv_userInit("c", 1, 0, 4, &kRoot), KIV_NOUSER);               // full
  char line[] = "show 1";
  EXPECT_EQ(kiv_cmdProcess(5, line, kiv_outputBuffer, KIV_OUTBUF_SIZE), -1);   // no such user
}

}  // namespace
