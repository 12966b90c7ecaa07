// `mib` and `vlan` end to end: the tool on a fresh simulated board with piped lines;
// counters and table entries are preset with `reg set`.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <thread>
#include <string>
#include <utility>
#include <vector>

#include "run_tool.h"

namespace {

struct Session {
  ToolResult res;
  std::string cwd;
};

Session run_lines(const std::vector<std::string> &lines, EnvVars env = {}, int timeoutMs = 20000) {
  ToolRun r;
  for (const auto &l : lines) r.input += l + "\n";
  r.env = std::move(env);
  r.timeoutMs = timeoutMs;
  r.cwd = make_temp_dir("mibvlan-tool");
  return {run_tool(r), r.cwd};
}

// Text after the first occurrence of `marker` (empty when absent).
std::string after(const std::string &out, const std::string &marker) {
  const size_t p = out.find(marker);
  return p == std::string::npos ? std::string() : out.substr(p + marker.size());
}

#define EXPECT_HAS(out, text) EXPECT_NE((out).find(text), std::string::npos) << "missing: " << (text)

std::string regSet(uint32_t addr, uint32_t v) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "reg set 0x%X 0x%X", addr, v);
  return buf;
}
std::string portCtr(uint32_t port, uint32_t i, uint32_t v) { return regSet(0x4AE20000u + port * 0x800 + 4 * i, v); }

constexpr const char *kOver = "MIB command Over\n";

TEST(MibTool, SummariesSumTheRightCountersUseTheLowByteAndTheFormatSetting) {
  const Session s = run_lines({
      portCtr(5, 34, 1), portCtr(5, 35, 2), portCtr(5, 40, 4), portCtr(5, 41, 8),
      portCtr(5, 42, 1000),   // etherStatsPkts is not part of any summary
      portCtr(5, 4, 16), portCtr(5, 6, 32), portCtr(5, 27, 3), portCtr(5, 26, 500),
      portCtr(6, 34, 0xFFFFFFFFu),   // totals print as signed 32-bit values
      portCtr(1, 34, 0xABCDEF12u), portCtr(1, 35, 1),
      "mib read 5", "mib read 0x105", "mib read 6",
      "set mibfmt hex", "mib read 0x11",
  });
  const std::string summary5 =
      "received packets   : 15 packets\ntransmitted packets: 48 packets\nerror packets      : 3 packets\n";
  EXPECT_EQ(count_of(s.res.out, summary5 + kOver + "Success!!"), 2u) << s.res.out;
  EXPECT_HAS(s.res.out, "received packets   : -1 packets\ntransmitted packets: 0 packets\n");
  EXPECT_HAS(s.res.out, "0x22 etherStatsPkts64Octets : ABCDEF12 \n0x23 etherStatsPkts65to127Octets :        1 \n");
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
  EXPECT_EQ(count_of(named, " : "), 2u * 91u);
}

TEST(MibTool, SystemLagAndRoutingCountersThenClearOnePortAndAll) {
  const Session s = run_lines({
      regSet(0x4A620264u + 4 * 9, 42), regSet(0x4A620264u + 4 * 48, 7),
      regSet(0x4A620074u, 77),              // group 0 counter 4 is group 1 counter 0
      regSet(0x4AE20130u + 16 + 8, 5),      // routing port 1 counter 2
      "mib sys", "mib lag 0", "mib lag 1", "mib route 1",
      portCtr(2, 34, 3), portCtr(3, 34, 4), regSet(0x4A620264u, 6), regSet(0x4A620064u, 8),
      "mib clear 16", "mib read 2",
      "mib clear 2", "mib read 2", "mib read 3",
      "mib clearall", "mib read 3", "mib sys", "mib lag 0", "reg get 0x4A620004",
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

// sread and dread stop at the first CRC error or a link down; dread logs the register to a
// file before each pass. A zero link word takes every port down; the knob takes port 4.
TEST(MibTool, MonitorsStopOnCrcErrorOrLinkDown) {
  const Session s = run_lines({portCtr(2, 27, 1), regSet(0x4A620000u, 0x1234), regSet(0x4A000200u, 0x55),
                               portCtr(1, 29, 2), "mib sread 2 1", "mib dread 1 1 1 0x100",
                               "mib dread 1 1 0 0x4A620000", "mib dread 4 1 0 0", "reg set 0x94804 0",
                               "mib sread 3 2", "mib sread 4 3", "mib sread 8 3"},
                              {{"KIVTOOL_SIM_LINKDOWN", "0x10"}});
  const std::string out = s.res.out;
  EXPECT_HAS(out,
             "\nport = 2  test mode = 1\n\n\nreceived packets   : 0 packets\ntransmitted packets: 0 packets\n"
             "error packets      : 1 packets\n\n=== packet CRC error, Test Fail !! ===MIB command Over\nSuccess!!");
  EXPECT_HAS(out, "\nport = 1  test mode = 1 reg type = 1 regaddr = 0x100\nfile Name = ocp_0x000000\n\n\n");
  EXPECT_HAS(out, "\nport = 1  test mode = 1 reg type = 0 regaddr = 0x4a620000\nfile Name = swr_0x000000");
  EXPECT_HAS(out, "\nport = 4  test mode = 1 reg type = 0 regaddr = 0x0\nDUT port is link downErrno : -1");
  EXPECT_HAS(out, "\nport = 3  test mode = 2\n\n\nreceived packets   : 0 packets\n");
  EXPECT_HAS(out, "packets\n\n==== port 3 link down   Test Fail!!=== \nMIB command Over\n");
  EXPECT_HAS(out, "\n==== port 4 link down   Test Fail!!=== \nMIB command Over\n");
  EXPECT_HAS(out, "\nport = 8  test mode = 3Errno : -1");
  EXPECT_EQ(count_of(out, kOver), 5u);
  EXPECT_EQ(read_file(s.cwd + "/ocp_0x000000"), "0x55\r\n");
  EXPECT_EQ(read_file(s.cwd + "/swr_0x000000"), "0x1234\r\n");
}

// Traffic played by a second run reaches a monitor that is looping: its CRC error stops
// the monitor, although its thousands of writes first made the store grow under it.
TEST(MibTool, AMonitorStopsOnAnotherRunsWrite) {
  ToolRun monitor, traffic;
  monitor.cwd = traffic.cwd = make_temp_dir("mibvlan-tool");
  monitor.input = "mib sread 2 1\n";
  for (uint32_t i = 0; i < 3000; ++i) traffic.input += regSet(0x4A200000u + 4 * i, i + 1) + "\n";
  traffic.input += portCtr(2, 25, 1) + "\n";
  ToolResult watched;
  std::thread t([&] { watched = run_tool(monitor); });
  // The monitor has attached once the store exists; then it is given time to loop.
  for (int i = 0; i < 250 && read_file(monitor.cwd + "/sim/regs.bin").empty(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_EQ(run_tool(traffic).status, 0);
  t.join();
  EXPECT_HAS(watched.out, "error packets      : 1 packets\n\n=== packet CRC error, Test Fail !! ===MIB command Over\n");
}

TEST(MibTool, DumpregAppendsUntilTheToolIsEnded) {
  const Session s = run_lines({regSet(0x4A620000u, 0xBEEF), "mib dumpreg 0 0x4A620000"}, {}, 1500);
  EXPECT_TRUE(s.res.timedOut);
  const std::string log = read_file(s.cwd + "/swr_0x000000");
  ASSERT_GE(log.size(), 3 * 8u);
  const std::string rec = "0xbeef\n\r";
  const size_t whole = log.size() / rec.size() * rec.size();
  EXPECT_EQ(count_of(log.substr(0, whole), rec), whole / rec.size());
}

TEST(VlanTool, SetGetRemoveRefusalsAndTheDumpOfValidEntriesBetween1And4094) {
  const Session s = run_lines({"vlan set 10 0x3 0x1 0 0 0", "vlan get 10", "vlan set 10 0 0 0 0 0", "vlan get 10",
                               "vlan set 10 3 1 15 0 0", "vlan set 10 3 1 0 2 0", "vlan get 4096",
                               "vlan set 7 1 0 0 0 0", "vlan init", "vlan set 0 1 0 0 0 0", "vlan set 4095 1 0 0 0 0",
                               "vlan set 100 1 0 3 0 1", "vlan set 4094 0xF0 0 0 0 0", "vlan dump"});
  EXPECT_HAS(s.res.out,
             "set vlan table : vid = 10, mbrmsk = 3, untagmsk = 1, fid = 0, ulfid = 0, vbfwd = 0, valid = 1\n"
             "Success!!\n"
             "get vlan table : vid = 10, mbrmsk = 0x3, untagmsk = 0x1, fid = 0, ulfid = 0, vbfwd = 0, valid = 1\n"
             "Success!!\n"
             "set vlan table : vid = 10, mbrmsk = 0, untagmsk = 0, fid = 0, ulfid = 0, vbfwd = 0, valid = 1\n"
             "Success!!\nvlan table get failed !\nSuccess!!\n"
             "vlan set failed !\nErrno : -1\nvlan set failed !\nErrno : -1\n"
             "vlan table get failed !\nSuccess!!\n");
  const std::string dump = after(s.res.out, "vlan init success !\nSuccess!!\n");
  EXPECT_HAS(dump,
             "get vlan table : vid = 1, mbrmsk = 0x7fff, untagmsk = 0xffff, fid = 0, ulfid = 1, vbfwd = 0, valid = 1\n"
             "get vlan table : vid = 100, mbrmsk = 0x1, untagmsk = 0x0, fid = 3, ulfid = 0, vbfwd = 1, valid = 1\n"
             "get vlan table : vid = 4094, mbrmsk = 0xf0, untagmsk = 0x0, fid = 0, ulfid = 0, vbfwd = 0, valid = 1\n"
             "Success!!\n");
  EXPECT_EQ(count_of(dump, "get vlan table"), 3u);
}

TEST(VlanTool, SetCarriesOverTheFieldsItHasNoArgumentFor) {
  // Plant VLAN 10 with a stateful mask and an interface through the table access unit.
  const Session s = run_lines({
      "reg set 0x4A300004 3", "reg set 0x4A30000C 0x55", "reg set 0x4A300010 0x1000000", "reg set 0x4A300014 0x107",
      "reg set 0x4A300000 0x8101000A",
      "vlan set 10 5 1 2 1 1",
      "reg set 0x4A300004 0", "reg set 0x4A30000C 0", "reg set 0x4A300014 0",
      "reg set 0x4A300000 0x8001000A",   // read the entry back
      "reg get 0x4A300004", "reg get 0x4A30000C", "reg get 0x4A300010", "reg get 0x4A300014",
  });
  EXPECT_HAS(after(s.res.out, "set vlan table : vid = 10, mbrmsk = 5, untagmsk = 1, fid = 2"),
             "[0x4A300004]=0x0005\nSuccess!!\n[0x4A30000C]=0x0055\nSuccess!!\n[0x4A300010]=0x1010102\nSuccess!!\n"
             "[0x4A300014]=0x0107\nSuccess!!\n");
}

TEST(VlanTool, PortSettingsMulticastModeAndRetagging) {
  const Session s = run_lines({"vlan pvid 3 inner set 100", "vlan pvid 3 inner set 0", "vlan pvid 3 inner get",
                               "vlan pvid 3 outer set 200", "vlan pvid 3 outer get", "vlan pvid 3 inner get",
                               "vlan pvid 0x103 inner get", "vlan pvid 3 outer set 4096", "vlan pvid 3 outer get",
                               "vlan igfilter set 7 enable", "vlan igfilter set all enable",
                               "vlan egfilter set 2 disable", "vlan igfilter set 8 enable", "vlan egfilter get all",
                               "vlan igfilter get 7", "reg get 0x4A300300", "reg get 0x4A300304",
                               "vlan mode multicast set 1 1 16", "vlan mode multicast get",
                               "vlan mode multicast set 1 1 17", "vlan mode multicast set 2 0x101 3",
                               "vlan mode multicast get", "reg get 0x4A4B0000",
                               "vlan egretag set status all enable", "vlan egretag init", "vlan egretag get status all",
                               "vlan igretag set entry 5 10 20 0x3 1", "vlan igretag get entry 5",
                               "vlan egretag get entry 5",
                               "vlan igretag set entry 32 1 2 3 1", "vlan igretag set status 16 enable",
                               "vlan igretag get entry all"});
  const std::string out = s.res.out;
  // A refused PVID is not reported: the command compares with another code.
  EXPECT_HAS(out,
             "Success!!\nSuccess!!\nPort 3 PVID:100\r\nSuccess!!\nSuccess!!\nPort 3 PVID:200\r\nSuccess!!\n"
             "Port 3 PVID:100\r\nSuccess!!\nPort 3 PVID:100\r\nSuccess!!\nSuccess!!\nPort 3 PVID:200\r\nSuccess!!\n");
  EXPECT_EQ(out.find("Incorrect VID"), std::string::npos);
  // Both filter keywords reach the ingress filter.
  EXPECT_HAS(out, "Incorrect port id (8)\r\nErrno : -1\n");
  EXPECT_HAS(out,
             "port id\tIGFILTER\r\n0\tENABLE\r\n1\tENABLE\r\n2\tDISABLE\r\n3\tENABLE\r\n4\tENABLE\r\n5\tENABLE\r\n"
             "6\tENABLE\r\n\r\nSuccess!!\nport id\tIGFILTER\r\n7\tENABLE\r\n\r\nSuccess!!\n");
  EXPECT_HAS(out, "[0x4A300300]=0x00FB\n");   // ports 0..7 less port 2
  EXPECT_HAS(out, "[0x4A300304]=0x0000\n");   // egress filtering never touched
  EXPECT_HAS(out,
             "Look up table using FID    :1(Yes)\r\nLook up table using Fix FID:1(Yes)\r\n"
             "                    Fix FID:16\r\nSuccess!!\nIncorrect Multicast fid value.\r\nErrno : -1\n");
  EXPECT_HAS(out,
             "Look up table using FID    :0(No)\r\nLook up table using Fix FID:1(Yes)\r\n"
             "                    Fix FID:3\r\n");
  EXPECT_HAS(out, "[0x4A4B0000]=0x340000\n");
  // Retagging: init leaves the status of ports 10 and 11 only; entries and their bounds.
  std::string status;
  for (int p = 0; p < 16; ++p)
    status += "Port " + std::to_string(p) + ": " + (p == 10 || p == 11 ? "Enabled" : "Disabled") + "\n";
  EXPECT_HAS(out, "Success!!\nSuccess!!\n" + status + "Success!!\n");
  EXPECT_HAS(out,
             "Success!!\nEntry 5:\n  - Original VLAN ID = 10\n  - New VLAN ID = 20\n"
             "  - Affected Ingress Port Mask = 0x3\n  - Valid = 1\n\nSuccess!!\n"
             "Entry 5:\n  - Original VLAN ID = 0\n  - New VLAN ID = 0\n"
             "  - Affected Egress Port Mask = 0x0\n  - Valid = 0\n\nSuccess!!\nErrno : -1\nErrno : -1\nEntry 0:\n");
  EXPECT_EQ(count_of(after(out, "Errno : -1\nErrno : -1\n"), "Entry "), 32u);
}

}  // namespace
