// Whole transcripts of the tool on the simulated board, compared byte for byte.
#include <gtest/gtest.h>

#include <string>

#include "run_tool.h"

namespace {

const std::string kBanner = "#\r\n# Quorvex KIV Tool build 20210719\r\n#\r\n";

// One-shot run: the words of `args` as program arguments.
std::string oneShot(std::initializer_list<std::string> args) {
  ToolRun r;
  r.args = args;
  ToolResult res = run_tool(r);
  EXPECT_FALSE(res.timedOut);
  EXPECT_EQ(res.status, 0);
  return res.out;
}

// Piped session: the lines as standard input.
std::string session(const std::string &input) {
  ToolRun r;
  r.input = input;
  ToolResult res = run_tool(r);
  EXPECT_FALSE(res.timedOut);
  EXPECT_EQ(res.status, 0);
  return res.out;
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

TEST(Transcripts, Listings) {
  EXPECT_EQ(oneShot({"ls"}), std::string(kSdkLine) +
                                 "reg                 mib                 spi                 \n"
                                 "set                 get                 vlan                \n"
                                 "qos                 igrate              egrate              \n"
                                 "are                 dot1x               lacp                \n"
                                 "la                  tai                 pcpremarking        \n"
                                 "gptp                dump                l2table             \n"
                                 "sram                aclset              reset               \n"
                                 "phy                 init                smi                 \n"
                                 "gphy                t18                 stp                 \n"
                                 "asictest            dos                 drivertest          \n"
                                 "wol                 via                 brom                \n"
                                 "efuse               otp                 sys                 \n"
                                 "sram                nic                 ckdigrtt            \n"
                                 "acl                 mmd                 macif               \n"
                                 "srp                 serdes              pcie                \n"
                                 "fqtss               st                  stridn              \n"
                                 "psfp                stk                 testio              \n"
                                 "mdx                 \n");
  const std::string q = oneShot({"?"});
  EXPECT_EQ(q.rfind(std::string(kSdkLine) +
                        "reg                  Register read/write access\n"
                        "mib                  mib counter\n"
                        "spi                  SPI Flash read/write and image update, default is 16bit flash. "
                        "These command need stop and reset CPU.\n",
                    0),
            0u);
  EXPECT_NE(q.find("\nefuse                efuse content  update. These command need stop and reset CPU.\n"),
            std::string::npos);
  EXPECT_NE(q.find("\nnic                  Run testcases according to your select. \n"), std::string::npos);
  EXPECT_EQ(q.substr(q.size() - 61), "mdx                  External PHY register read/write access\n");
  // Every shipped row is grammar-parsed: "help" shows the same as "?".
  EXPECT_EQ(oneShot({"help"}), q);

  EXPECT_EQ(oneShot({"reg", "?"}), kSdkLine + kRegList);
  EXPECT_EQ(oneShot({"reg", "get", "?"}),
            std::string(kSdkLine) + "\n%d                        Address\n\n");
  EXPECT_EQ(oneShot({"init", "?"}), std::string(kSdkLine) +
                                        "<cr>                      Acceptable command. Press <Return> to "
                                        "commit command...\n");
  EXPECT_EQ(oneShot({"re?"}), std::string(kSdkLine) +
                                  "reg                  Register read/write access\n"
                                  "reset                reset\n");
  EXPECT_EQ(oneShot({"reg", "getb?"}), std::string(kSdkLine) +
                                           "\ngetbit                    Get bit value of register\n"
                                           "getbits                   Get bits value of register\n"
                                           "getburst                  Get content of register\n\n");
}

TEST(Transcripts, LookupAndErrors) {
  EXPECT_EQ(oneShot({"re"}), std::string(kSdkLine) + "\nreg\nreset\nambiguous command\n");
  EXPECT_EQ(oneShot({"reg"}), kSdkLine + kRegList + "Incomplete command\nSuccess!!\n");
  EXPECT_EQ(oneShot({"vl", "get"}),
            std::string(kSdkLine) + "\n%d                        vlan id\n\nIncomplete command\nSuccess!!\n");
  EXPECT_EQ(oneShot({"nosuch"}), std::string(kSdkLine) + "Unknown command\n");
  EXPECT_EQ(oneShot({"reg", "foo"}), std::string(kSdkLine) + "\nError on 1th token 'foo'\n\n" + kRegList +
                                         "Incomplete command\nSuccess!!\n");
  EXPECT_EQ(oneShot({"reg", "get", "x1"}),
            std::string(kSdkLine) + "\nError on 2th token 'x1'\n\n\n%d                        Address\n\n"
                                    "Incomplete command\nSuccess!!\n");
  EXPECT_EQ(oneShot({"qos", "i"}),
            std::string(kSdkLine) + "1th token best matched for 'init'\nqos init: not supported\nErrno : -1\n");
  EXPECT_EQ(oneShot({"qos", "Queue"}), std::string(kSdkLine) +
                                           "\n1th token best matched for 'priToQueueMapping'\n"
                                           "qos priToQueueMapping: not supported\nErrno : -1\n");
  EXPECT_EQ(oneShot({"sram", "read", "0", "1"}),
            std::string(kSdkLine) + "sram read: not supported\nErrno : -1\n");
  // A prefix of "%d" is rewritten once and then reported instead of looping.
  EXPECT_EQ(oneShot({"asictest", "%"}), std::string(kSdkLine) +
                                            "1th token best matched for '%d'\n\nError on 1th token '%d'\n\n\n"
                                            "%d                        first case number\n\n"
                                            "Incomplete command\nSuccess!!\n");
}

TEST(Transcripts, PipedSession) {
  const std::string t256(256, 'x');
  const std::string out = session(
      "qos \"init\"\n"
      "\"qos init\"\n"
      "..\n"
      " exit \n"
      "\n" +
      t256 + "\n"
      "are you\r\n"
      "exit\n"
      "are ok\n");
  EXPECT_EQ(out, kBanner + kSdkLine +
                     "qos init: not supported\nErrno : -1\n"
                     "Unknown command\n"
                     "Unknown command\n"
                     "Unknown command\n"
                     "are you: not supported\nErrno : -1\n");
}

}  // namespace
