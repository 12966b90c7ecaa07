// `mib` end to end on the simulated board; counters are preset with `reg set`.
#include <cstdio>
#include <filesystem>

#include "tool_session.h"

namespace {

std::string regSet(uint32_t addr, uint32_t v) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "reg set 0x%X 0x%X", addr, v);
  return buf;
}
std::string portCtr(uint32_t port, uint32_t i, uint32_t v) { return regSet(0x4AE20000u + port * 0x800 + 4 * i, v); }

constexpr const char *kOver = "MIB command Over\n";

TEST(MibTool, SummariesSumTheRightCountersAndUseTheLowByte) {
  const Session s = run_lines({
      portCtr(5, 34, 1), portCtr(5, 35, 2), portCtr(5, 40, 4), portCtr(5, 41, 8),
      portCtr(5, 42, 1000),   // etherStatsPkts is not part of any summary
      portCtr(5, 4, 16), portCtr(5, 6, 32), portCtr(5, 27, 3), portCtr(5, 26, 500),
      portCtr(6, 34, 0xFFFFFFFFu),   // totals print as signed 32-bit values
      "mib read 5", "mib read 0x105", "mib read 6",
  });
  const std::string summary5 =
      "received packets   : 15 packets\ntransmitted packets: 48 packets\nerror packets      : 3 packets\n";
  EXPECT_EQ(count(s.res.out, summary5 + kOver + "Success!!"), 2u) << s.res.out;
  EXPECT_HAS(s.res.out, "received packets   : -1 packets\ntransmitted packets: 0 packets\n");
}

TEST(MibTool, NamedAndUnnamedPortDumps) {
  const Session s = run_lines({portCtr(5, 20, 9), portCtr(5, 35, 2), portCtr(5, 90, 4000000000u), "mib read 0x15",
                               "mib read 0xA5"});
  const std::string named = after(s.res.out, "[0x4AE22968]=");
  EXPECT_HAS(named, "0x00 IfOutOctets[31:0] :          0 \n0x01 IfOutOctets [63:32] :          0 \n");
  EXPECT_HAS(named, "0x14 IfHCInUcastPkts  :          9 \n0x15 IfHCInMulticastPkts  :          0 \n");
  EXPECT_HAS(named, "0x23 etherStatsPkts65to127Octets :          2 \n");
  EXPECT_HAS(named, "0x5A Routing EPP UC MTU fail drop packet : 4000000000 \n" + std::string(kOver));
  // Unnamed: four to a line, the last line left open before the closing text.
  EXPECT_HAS(named, "0x20 :          0   0x21 :          0   0x22 :          0   0x23 :          2 \n");
  EXPECT_HAS(named, "0x58 :          0   0x59 :          0   0x5A : 4000000000   MIB command Over\n");
  EXPECT_EQ(count(named, " : "), 2u * 91u);
}

TEST(MibTool, HexFormatFollowsTheSetting) {
  const Session s = run_lines({portCtr(1, 34, 0xABCDEF12u), portCtr(1, 35, 1), "set mibfmt hex", "mib read 0x11",
                               "set mibfmt HEX", "mib read 0x11"});
  EXPECT_HAS(s.res.out, "0x22 etherStatsPkts64Octets : ABCDEF12 \n0x23 etherStatsPkts65to127Octets :        1 \n");
  EXPECT_HAS(s.res.out, "0x22 etherStatsPkts64Octets : 2882400018 \n");
}

TEST(MibTool, SystemLagAndRoutingCounters) {
  const Session s = run_lines({
      regSet(0x4A620264u + 4 * 9, 42), regSet(0x4A620264u + 4 * 48, 7),
      regSet(0x4A620074u, 77),              // group 0 counter 4 is group 1 counter 0
      regSet(0x4AE20130u + 16 + 8, 5),      // routing port 1 counter 2
      "mib sys", "mib lag 0", "mib lag 1", "mib route 1",
  });
  const std::string out = s.res.out;
  EXPECT_HAS(out, "0x09 EgressVLANFilterDrop :         42 \n");
  EXPECT_HAS(out, "0x30 dot1dTpLearnedEntryDiscards :          7 \n" + std::string(kOver));
  EXPECT_HAS(out, "0x04 aAggBroadcastFramesTxOK :         77 \n");
  EXPECT_HAS(out, "0x00 aAggOctetsTxOK[31:0] :         77 \n");
  EXPECT_HAS(out,
             "0x00 aAggOctetsTxOK[31:0] :          0 \n0x01 aAggOctetsTxOK[63:32] :          0 \n"
             "0x02 aAggFramesTxOK :          5 \n0x03 aAggMulticastFramesTxOK :          0 \n"
             "0x04 aAggBroadcastFramesTxOK :          0 \n" + std::string(kOver));
}

TEST(MibTool, ClearOnePortThenAll) {
  const Session s = run_lines({
      portCtr(2, 34, 3), portCtr(3, 34, 4), regSet(0x4A620264u, 6), regSet(0x4A620064u, 8),
      "mib clear 16", "mib read 2",
      "mib clear 2", "mib read 2", "mib read 3",
      "mib clearall", "mib read 3", "mib sys", "mib lag 0", "reg get 0x4A620004",
  });
  const std::string out = s.res.out;
  EXPECT_HAS(out, std::string(kOver) + "Success!!\nreceived packets   : 3 packets\n");   // clear 16: nothing
  const std::string afterClear = after(out, "received packets   : 3 packets\n");
  EXPECT_HAS(afterClear, "received packets   : 0 packets\n");
  EXPECT_HAS(afterClear, "received packets   : 4 packets\n");
  const std::string afterAll = after(afterClear, "received packets   : 4 packets\n");
  EXPECT_HAS(afterAll, "received packets   : 0 packets\n");
  EXPECT_HAS(afterAll, "0x00 PortLinkDownDrop :          0 \n");
  EXPECT_HAS(afterAll, "0x00 aAggOctetsTxOK[31:0] :          0 \n");
  EXPECT_HAS(afterAll, "[0x4A620004]=0x60000\n");
}

TEST(MibTool, MonitorStopsOnCrcErrorOrLinkDown) {
  const Session s = run_lines({portCtr(2, 27, 1), "mib sread 2 1", "reg set 0x94804 0", "mib sread 3 2",
                               "mib sread 4 3", "mib sread 8 3"},
                              {{"KIVTOOL_SIM_LINKDOWN", "0x10"}});
  const std::string out = s.res.out;
  EXPECT_HAS(out,
             "\nport = 2  test mode = 1\n\n\nreceived packets   : 0 packets\ntransmitted packets: 0 packets\n"
             "error packets      : 1 packets\n\n=== packet CRC error, Test Fail !! ===MIB command Over\nSuccess!!");
  EXPECT_HAS(out, "\nport = 3  test mode = 2\n\n\nreceived packets   : 0 packets\n");
  EXPECT_HAS(out, "packets\n\n==== port 3 link down   Test Fail!!=== \nMIB command Over\n");
  EXPECT_HAS(out, "\n==== port 4 link down   Test Fail!!=== \nMIB command Over\n");
  EXPECT_HAS(out, "\nport = 8  test mode = 3Errno : -1");
  EXPECT_EQ(count(out, kOver), 3u);
}

TEST(MibTool, DreadLogsTheRegisterBeforeEachPass) {
  const Session s = run_lines({regSet(0x4A620000u, 0x1234), regSet(0x4A000200u, 0x55), portCtr(1, 29, 2),
                               "mib dread 1 1 1 0x100", "mib dread 1 1 0 0x4A620000", "mib dread 2 1 0 0"},
                              {{"KIVTOOL_SIM_LINKDOWN", "0x4"}});
  const std::string out = s.res.out;
  EXPECT_HAS(out, "\nport = 1  test mode = 1 reg type = 1 regaddr = 0x100\nfile Name = ocp_0x000000\n\n\n");
  EXPECT_HAS(out, "\nport = 1  test mode = 1 reg type = 0 regaddr = 0x4a620000\nfile Name = swr_0x000000");
  EXPECT_HAS(out, "regaddr = 0x0\nDUT port is link downErrno : -1");
  EXPECT_EQ(read_file(s.cwd + "/ocp_0x000000"), "0x55\r\n");
  EXPECT_EQ(read_file(s.cwd + "/swr_0x000000"), "0x1234\r\n");
}

TEST(MibTool, DumpregAppendsUntilTheToolIsEnded) {
  const Session s = run_lines({regSet(0x4A620000u, 0xBEEF), "mib dumpreg 0 0x4A620000"}, {}, 1500);
  EXPECT_TRUE(s.res.timedOut);
  const std::string log = read_file(s.cwd + "/swr_0x000000");
  ASSERT_GE(log.size(), 3 * 8u);
  const std::string rec = "0xbeef\n\r";
  const size_t whole = log.size() / rec.size() * rec.size();
  EXPECT_EQ(count(log.substr(0, whole), rec), whole / rec.size());
}

}  // namespace
