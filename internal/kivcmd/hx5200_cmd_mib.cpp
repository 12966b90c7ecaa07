// `mib`: enable, read, clear and monitor the statistics counters.
#include <array>
#include <cstdio>
#include <cstring>

#include "access/access.h"
#include "access/usbio.h"
#include "internal/common/hx5200_regasicdrv.h"
#include "internal/common/hxk_mib.h"
#include "internal/kivcmd/hx5200_cmd.h"

namespace {

constexpr std::array<const char *, MIB_PORT_COUNTERS> kPortNames{
    "IfOutOctets[31:0]",
    "IfOutOctets [63:32]",
    "Dot1dTpHCPortOutFrames",
    "dot3OutPauseFrames",
    "ifHCOutUnicastPkts",
    "ifHCOutMulticastPkts",
    "ifHCOutBroadcastPkts",
    "dot3StatsSingleCollisionFrames",
    "dot3StatMultipleCollisionFrames",
    "etherStatsCollisions",
    "dot3StatsDeferredTransmissions",
    "dot3StatsLateCollisions",
    "dot3StatsExcessiveCollisions",
    "TxPkt",
    "IfInOctets [31:0]",
    "IfInOctets [63:32]",
    "EtherStatsOCtets_RX[31:0]",
    "EtherStatsOCtets_RX[63:32]",
    "Dot1dTpHCPortInFrames",
    "dot3InPauseFrames",
    "IfHCInUcastPkts ",
    "IfHCInMulticastPkts ",
    "IfHCInBroadcastPkts",
    "etherStatsFragments",
    "RxPktBelow64",
    "etherStatsJabbers",
    "dot3StatsFrameTooLongs",
    "dot3StatsFCSErrors",
    "dot3StatsAlignmentErrors",
    "dot3StatsSymbolErrors",
    "dot3ControlInUnknownOpcodes",
    "etherStatsDropEvents",
    "Dot1dTpHCPortInDiscards",
    "ifOutDiscards",
    "etherStatsPkts64Octets",
    "etherStatsPkts65to127Octets",
    "etherStatsPkts128to255Octets",
    "etherStatsPkts256to511Octets",
    "etherStatsPkts512to1023Octets",
    "etherStatsPkts1024to1518Octets",
    "etherStatsoversizePkts",
    "etherStatsundersizePkts",
    "etherStatsPkts",
    "etherStatsCRCAlignErrors",
    "ALE port congestion dropped unicast packets",
    "ALE port congestion dropped multicast packets",
    "ALE port congestion dropped broadcast packets",
    "ALE port congestion dropped all packets",
    "ALEBWLimDropPktCnt",
    "48pass1DropPktCnt",
    "IOLLenErrDropPktcnt",
    "IOLMaxLenDropPktcnt",
    "PnFlowctrlOnRxdropPktcnt",
    "PnShortIFGRxDropPktCnt",
    "EgressDropPktcnt",
    "Q0TXPktcnt",
    "Q1TXPktcnt",
    "Q2TXPktcnt",
    "Q3TXPktcnt",
    "Q4TXPktcnt",
    "Q5TXPktcnt",
    "Q6TXPktcnt",
    "Q7TXPktcnt",
    "LinkDownTxDropCnt",
    "Q0TransmissionOverrun[31:0]",
    "Q0TransmissionOverrun[63:32]",
    "Q1TransmissionOverrun[31:0]",
    "Q1TransmissionOverrun[63:32]",
    "Q2TransmissionOverrun[31:0]",
    "Q2TransmissionOverrun[63:32]",
    "Q3TransmissionOverrun[31:0]",
    "Q3TransmissionOverrun[63:32]",
    "Q4TransmissionOverrun[31:0]",
    "Q4TransmissionOverrun[63:32]",
    "Q5TransmissionOverrun[31:0]",
    "Q5TransmissionOverrun[63:32]",
    "Q6TransmissionOverrun[31:0]",
    "Q6TransmissionOverrun[63:32]",
    "Q7TransmissionOverrun[31:0]",
    "Q7TransmissionOverrun[63:32]",
    "STConfigChangeError[31:0]",
    "STConfigChangeError[63:32]",
    "Routing EPP packet byte[31:0]",
    "Routing EPP packet byte[63:32]",
    "Routing EPP unicast packet",
    "Routing EPP multicast packet",
    "Routing EPP MC RPF drop packet",
    "Routing EPP MC MTU fail drop packet",
    "Routing EPP MC TTL HL fail drop packet",
    "Routing EPP UC ICMP redir drop packet",
    "Routing EPP UC MTU fail drop packet",
};

constexpr std::array<const char *, MIB_SYS_COUNTERS> kSysNames{
    "PortLinkDownDrop",
    "FlowCtrlDrop",
    "TxDisbleDrop",
    "MirrorEgressFilterDrop",
    "LinkAggrLinkDownDrop",
    "CPUPortSelfFilterDrop",
    "SYS_DMY_1",
    "PortIsolationDrop",
    "SpanTreeEgressDrop",
    "EgressVLANFilterDrop",
    "StormSuppressionDrop",
    "SourcePortSelfFilterDrop",
    "MulticastEgressFilterDrop",
    "MACConstrainDrop",
    "SAMovingDrop",
    "SABlockDrop",
    "SYS_DMY_2",
    "InvalidSADrop",
    "LookupMissDrop",
    "DABlockDrop",
    "L2MultcastDMACMulticasIPDrop",
    "L2UnicastDMACMulticastIPDrop",
    "TTLDrop",
    "IGMPMLDDrop",
    "SwitchOwnMACDrop",
    "SpanTreeIngressDrop",
    "Dot1XEgressFilterDrop",
    "Dot1XIngressFilterDrop",
    "VLANIngressFilterDrop",
    "VLANTableLookupMissDrop",
    "VLANAcceptTagDrop",
    "SYS_DMY_3",
    "SYS_DMY_4",
    "SYS_DMY_5",
    "SYS_DMY_6",
    "SYS_DMY_7",
    "SYS_DMY_8",
    "SYS_DMY_9",
    "IngressBandwidthCtrlDrop",
    "ACLLookupMissDrop",
    "ACLPoliceDrop",
    "ACLDropActionDrop",
    "ACLRedirectActionDrop",
    "RMADrop",
    "SYS_DMY_10",
    "CFIDrop",
    "RLDPTxFrames",
    "RLDPRxFrames",
    "dot1dTpLearnedEntryDiscards",
};

constexpr std::array<const char *, MIB_LAG_COUNTERS> kLagNames{
    "aAggOctetsTxOK[31:0]",    "aAggOctetsTxOK[63:32]",   "aAggFramesTxOK",          "aAggMulticastFramesTxOK",
    "aAggBroadcastFramesTxOK", "aAggFramesDiscardedOnTx", "aAggFramesWithTxErrors",  "LAG0DMY",
    "aAggOctetsRxOK[31:0]",    "aAggOctetsRxOK[63:32]",   "aAggFramesRxOK",          "aAggMulticastFramesRxOK",
    "aAggBroadcastFramesRxOK", "aAggFramesDiscardedOnRx", "aAggFramesWithRxErrors",  "aAggUnknownProtocolFrames",
};

// Names of the routing counters. The routing read labels its values with the first five
// LAG names instead; this list is kept for reference only.
[[maybe_unused]] constexpr std::array<const char *, MIB_ROUTE_COUNTERS> kRouteNames{
    "TxOctets[31:0]", "TxOctets[63:32]", "TxUnicastPkts", "TxMulticastPkts", "TxBroadcastPkts",
};

// Port counters summed into the packet summaries.
constexpr std::array<uint32_t, 8> kRxCounters{34, 35, 36, 37, 38, 39, 40, 41};
constexpr std::array<uint32_t, 3> kTxCounters{4, 5, 6};
constexpr std::array<uint32_t, 4> kErrCounters{23, 25, 27, 29};

constexpr uint32_t kMonitorDelay = 30000;
constexpr uint32_t kWakeDelay = 150000;
constexpr uint32_t kWakeLongDelay = 250000;
constexpr uint32_t kWakeReady = 0x30;
constexpr const char *kSwrFile = "swr_0x000000";
constexpr const char *kOcpFile = "ocp_0x000000";

// Last number taken; a missing number token reuses it.
uint32_t g_mibArg = 0;

// Busy wait: `units` passes of a 1000-step counting loop (not calibrated to time).
void mibDelay(uint32_t units) {
  for (uint32_t u = 0; u < units; ++u) {
    volatile uint32_t i = 0;
    while (i < 1000) i = i + 1;
  }
}

// A failed read or reset the command shows only by the values it prints: the line counts
// as failed all the same (-e).
int32_t noted(int32_t rc) {
  if (rc != 0) kiv_markLineFailed();
  return rc;
}

int mibOver() {
  puts("MIB command Over");
  return 0;
}

// Value lines: decimal "%10u" or hexadecimal "%8LX" of the value widened to 64 bits
// (printed with the equivalent "ll" length modifier).
void printNamed(uint32_t idx, const char *name, uint32_t value) {
  if (hx_mibFormat == 1)
    printf("0x%02X %s : %8llX \n", idx, name, static_cast<unsigned long long>(value));
  else
    printf("0x%02X %s : %10u \n", idx, name, value);
}

void printUnnamed(uint32_t idx, uint32_t value) {
  if (hx_mibFormat == 1)
    printf("0x%02X : %8llX ", idx, static_cast<unsigned long long>(value));
  else
    printf("0x%02X : %10u ", idx, value);
  printf(idx % 4 == 3 ? "\n" : "  ");
}

struct Summary {
  uint64_t rx = 0, tx = 0, err = 0;
};

// A failed read adds the value the previous read left in the buffer.
template <size_t N>
uint64_t sumCounters(const std::array<uint32_t, N> &idx, uint32_t port, uint32_t &buf) {
  uint64_t total = 0;
  for (uint32_t i : idx) {
    noted(hxk_mib_counterRead(HXK_MIB_PORT_INDEX_BASE + i, port, &buf));
    total += buf;
  }
  return total;
}

Summary printSummary(uint32_t port) {
  uint32_t buf = 0;
  Summary s;
  s.rx = sumCounters(kRxCounters, port, buf);
  s.tx = sumCounters(kTxCounters, port, buf);
  s.err = sumCounters(kErrCounters, port, buf);
  // The low 32 bits of each total, as a signed number.
  printf("received packets   : %ld packets\n", static_cast<long>(static_cast<int32_t>(s.rx)));
  printf("transmitted packets: %ld packets\n", static_cast<long>(static_cast<int32_t>(s.tx)));
  printf("error packets      : %ld packets\n", static_cast<long>(static_cast<int32_t>(s.err)));
  return s;
}

void readPort(uint32_t n) {
  const uint32_t byte = n & 0xFFu;
  if (byte <= 15) {
    printSummary(byte);
    return;
  }
  const uint32_t base = byte & 0xF0u, port = byte & 0x0Fu;
  uint32_t v = 0;
  for (uint32_t i = 0; i < MIB_PORT_COUNTERS; ++i) {
    noted(hxk_mib_counterRead(HXK_MIB_PORT_INDEX_BASE + i, port, &v));
    if (base == 0xA0)
      printUnnamed(i, v);
    else
      printNamed(i, kPortNames[i], v);
  }
}

void readSys() {
  uint32_t v = 0;
  for (uint32_t i = 0; i < MIB_SYS_COUNTERS; ++i) {
    noted(hxk_mib_counterRead(i, 0, &v));
    printNamed(i, kSysNames[i], v);
  }
}

// LAG groups are 16 bytes apart although each has 16 four-byte counters: consecutive
// groups overlap. Kept as the chip's driver lays them out.
void readLag(uint32_t group) {
  uint32_t v = 0;
  for (uint32_t i = 0; i < MIB_LAG_COUNTERS; ++i) {
    noted(reg_read(1, MIB_LAG_BASE + group * MIB_LAG_GROUP_STRIDE + 4 * i, &v));
    printNamed(i, kLagNames[i], v);
  }
}

void readRoute(uint32_t rport) {
  uint32_t v = 0;
  for (uint32_t i = 0; i < MIB_ROUTE_COUNTERS; ++i) {
    noted(reg_read(1, MIB_ROUTE_BASE + rport * MIB_ROUTE_STRIDE + 4 * i, &v));
    printNamed(i, kLagNames[i], v);
  }
}

// ---- link and CRC monitor ----------------------------------------------------------------

struct Monitor {
  uint32_t port = 0;
  uint32_t mode = 0;
  uint32_t link = 0;      // last link word read (kept over failed reads)
  bool lossSeen = false;
};

// One pass: summaries, CRC check, link check. True when the test has stopped.
bool monitorPass(Monitor &m) {
  printf("\n\n\n");
  const Summary s = printSummary(m.port);
  bool stopped = false;
  if (s.err != 0) {
    printf("\n=== packet CRC error, Test Fail !! ===");
    if (m.mode & 1u) stopped = true;
  }
  noted(hx5200_port_linkWordGet(m.port, &m.link));
  if (m.lossSeen) {
    printf("\n==== port %d link down   test fail!!===\n", static_cast<int>(m.port));
    if (m.mode & 2u) stopped = true;
  } else if ((m.link & (1u << OCP_PORT_LINK_UP_LSP)) == 0) {
    m.lossSeen = true;
    printf("\n==== port %d link down   Test Fail!!=== \n", static_cast<int>(m.port));
    if (m.mode & 2u) stopped = true;
  }
  fflush(stdout);
  if (stopped) kiv_markLineFailed();   // the monitor ends only on a failed test
  return stopped;
}

int runMonitor(Monitor &m) {
  for (;;) {
    if (monitorPass(m)) return mibOver();
    mibDelay(kMonitorDelay);
  }
}

int sread(uint32_t port, uint32_t mode) {
  printf("\nport = %d  test mode = %d", static_cast<int>(port), static_cast<int>(mode));
  if (port > 7) return -1;
  Monitor m;
  m.port = port;
  m.mode = mode;
  hx5200_port_linkWordGet(port, &m.link);
  hx5200_port_linkWordGet(port, &m.link);
  return runMonitor(m);
}

// ---- register logging ------------------------------------------------------------------

const char *logFileName(uint32_t type) { return type == 0 ? kSwrFile : kOcpFile; }

// Name the log file and empty it. False (with the message) when it cannot be opened.
bool logStart(const char *name) {
  printf("\nfile Name = %s", name);
  FILE *f = fopen(name, "w");
  if (f == nullptr) {
    printf("\nfile open fail");
    return false;
  }
  fclose(f);
  return true;
}

// One log record: open the file for appending, read the register (type 0: a direct
// register read, otherwise a PHY OCP read), write the value, close. A failed read logs
// the value the previous read left. False when the file cannot be opened.
bool logAppend(const char *name, const char *fmt, uint32_t type, uint32_t addr, uint32_t &value) {
  FILE *f = fopen(name, "a");
  if (f == nullptr) {
    printf("\nfile open fail");
    return false;
  }
  noted(type == 0 ? asic_reg_read(addr, &value) : hx5200_ocp_read(addr, &value));
  fprintf(f, fmt, value);
  fclose(f);
  return true;
}

int dread(uint32_t port, uint32_t mode, uint32_t type, uint32_t addr) {
  printf("\nport = %d  test mode = %d reg type = %d regaddr = 0x%x", static_cast<int>(port),
         static_cast<int>(mode), static_cast<int>(type), addr);
  if (port > 7) return -1;
  Monitor m;
  m.port = port;
  m.mode = mode;
  for (int i = 0; i < 3; ++i) hx5200_port_linkWordGet(port, &m.link);
  if ((m.link & (1u << OCP_PORT_LINK_UP_LSP)) == 0) {
    printf("\nDUT port is link down");
    return -1;
  }
  const char *name = logFileName(type);
  if (!logStart(name)) return -1;
  uint32_t value = 0;
  for (;;) {
    if (!logAppend(name, "0x%x\r\n", type, addr, value)) return -1;
    if (monitorPass(m)) return mibOver();
    mibDelay(kMonitorDelay);
  }
}

// Appends the register's value to the file until the tool is interrupted.
int dumpreg(uint32_t type, uint32_t addr) {
  const char *name = logFileName(type);
  if (!logStart(name)) return -1;
  fflush(stdout);
  uint32_t value = 0;
  for (;;) {
    if (!logAppend(name, "0x%x\n\r", type, addr, value)) return -1;
  }
}

// ---- remote wake test ------------------------------------------------------------------

// Talk to another I2C device id: the adapter is reconfigured for the new address.
void selectI2cDevice(uint8_t id) {
  i2caddrid = id;
  if (usbio_handle != nullptr) usbio_close(usbio_handle, 0);
  usbio_connect();
}

int rwaketest(uint32_t port) {
  printf("\ntest port =%d", static_cast<int>(port));
  fflush(stdout);
  for (;;) {
    selectI2cDevice(2);
    uint32_t v = 0;
    do {
      hx5200_ocp_read(OCP_WAKE_STATUS, &v);
    } while (v != kWakeReady);
    hx5200_ocp_write(OCP_WAKE_CTRL, 0x12D4);
    mibDelay(kWakeDelay);
    printf("\n Set DUT to Sleep Mode");
    mibDelay(kWakeDelay);
    printf("\n Wake up DUT");
    fflush(stdout);
    selectI2cDevice(4);
    hx5200_ocp_write(OCP_WAKE_CTRL, 0x12D2);
    mibDelay(kWakeLongDelay);
    hx5200_ocp_write((port + OCP_WAKE_PORT_BASE) * 2, 16);
    mibDelay(kWakeDelay);
  }
}

// ---- subcommands ------------------------------------------------------------------------
// Those that return without their own result end with the closing line.

int mibEnable(void **) {
  noted(hxk_mib_enable());
  return mibOver();
}

int mibRead(void **argv) {
  readPort(cmd_nextNumOrLast(argv, &g_mibArg));
  return mibOver();
}

int mibSys(void **) {
  readSys();
  return mibOver();
}

int mibLag(void **argv) {
  readLag(cmd_nextNumOrLast(argv, &g_mibArg) & 0xFFu);
  return mibOver();
}

int mibRoute(void **argv) {
  readRoute(cmd_nextNumOrLast(argv, &g_mibArg) & 0xFFu);
  return mibOver();
}

int mibSread(void **argv) {
  const uint32_t port = cmd_nextNumOrLast(argv, &g_mibArg) & 0xFFu;
  const uint32_t mode = cmd_nextNumOrLast(argv, &g_mibArg);
  return sread(port, mode);
}

int mibDread(void **argv) {
  const uint32_t port = cmd_nextNumOrLast(argv, &g_mibArg) & 0xFFu;
  const uint32_t mode = cmd_nextNumOrLast(argv, &g_mibArg);
  const uint32_t type = cmd_nextNumOrLast(argv, &g_mibArg);
  const uint32_t addr = cmd_nextNumOrLast(argv, &g_mibArg);
  return dread(port, mode, type, addr);
}

int mibDumpreg(void **argv) {
  const uint32_t type = cmd_nextNumOrLast(argv, &g_mibArg);
  const uint32_t addr = cmd_nextNumOrLast(argv, &g_mibArg);
  return dumpreg(type, addr);
}

int mibRwaketest(void **argv) { return rwaketest(cmd_nextNumOrLast(argv, &g_mibArg) & 0xFFu); }

int mibClear(void **argv) {
  noted(hxk_mib_portCounterReset(cmd_nextNumOrLast(argv, &g_mibArg) & 0xFFu));   // a port above 15 is refused
  return mibOver();
}

int mibClearall(void **) {
  noted(hxk_mib_counterReset((1u << MIB_PORTS) - 1, 1));
  noted(reg_field_write(1, MIB_GLOBAL_RESET, MIB_GLOBAL_RESET_DONE_LSP, MIB_GLOBAL_RESET_DONE_LEN, 3));
  return mibOver();
}

}  // namespace

const char hx5200_usageMib[] =
    "{ enable'enable mib counter'  |  read'read mib counter'  {  %d'port number'  }  |  sys'read "
    "system mib counter'  |  lag'read lag mib counter'  {  %d'lag number'  }  |  route'read routing "
    "mib counter'  {  %d'routing port number'  }  |  sread'monitor link state and CRC' { "
    "%d'port'%d'test mode 0=none 1=CRC 2=linkState 3=CRC and linkState' }  |  dread'monitor link "
    "state and CRC' { %d'port'%d'test mode 0=none 1=CRC 2=linkState 3=CRC and linkState'%d'dump "
    "register type 0=SWR 1 =OCP'%d'dump register address' }  |  dumpreg'dump register to file' { "
    "%d'register type 0=SWR 1=OCP'%d'register address' }  |  rwaketest'remote wake test for DPI and "
    "Transient'  {  %d'port number'  }  |  clear'clear the mib counter'  {  %d'port number'  }  |  "
    "clearall'clear the mib counter on all ports' }";

namespace {
constexpr auto kMibCmds = std::to_array<cmd_sub_t<>>({
    {"enable", mibEnable},
    {"read", mibRead},
    {"sys", mibSys},
    {"lag", mibLag},
    {"route", mibRoute},
    {"sread", mibSread},
    {"dread", mibDread},
    {"dumpreg", mibDumpreg},
    {"rwaketest", mibRwaketest},
    {"clear", mibClear},
    {"clearall", mibClearall},
});
}  // namespace

kiv_int32 hx5200_cmd_mib(kiv_uint32 /*uid*/, kiv_int32 /*argc*/, void **argv) {
  if (const cmd_sub_t<> *row = cmd_findSub(kMibCmds, cmd_nextStr(argv))) return row->fn(argv);
  return mibOver();   // an unknown word ends like the counters' commands
}

const cmd_subWords_t hx5200_wordsMib = cmd_subWords(kMibCmds);
