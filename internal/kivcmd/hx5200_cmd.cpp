// Command table of the root group "HX5200", the detached "hx3100" group, and the handlers
// that live with the table: rows whose behaviour the tool does not provide, and "init".
#include "internal/kivcmd/hx5200_cmd.h"

#include <cstdio>
#include <cstring>

namespace {

// Every row of the table is grammar-parsed and has no parameter types of its own.
constexpr kiv_cmd_t row(const char *name, const char *help, const char *usage, kiv_cmdFunc fn) {
  return kiv_cmd_t{name, help, usage, fn, KIV_USECISCOCMDPARSER, 0, 0, 0, nullptr};
}

constexpr kiv_cmdFunc NS = hx5200_cmd_notSupported;

// ---- usage grammars ------------------------------------------------------------------












// Rows without described behaviour: their listed first words only.
constexpr const char *kUsageQos =
    "{ init'initialize qos settings'  | portPriority'port based priority'  | "
    "priToQueueMapping'priority to queue mapping'  | queueProperty'queue property' }";
constexpr const char *kUsageIgrate =
    "{ gap'count the inter-frame gap in the rate'  | all'all ports'  | %d'port number' }";
constexpr const char *kUsageEgrate =
    "{ gap'count the inter-frame gap in the rate'  | all'all ports'  | %d'port number' }";
constexpr const char *kUsageAre = "{ you'are you there'  | ok'are you ok' }";
constexpr const char *kUsageDot1x = "{ get'get 802.1X settings'  | set'set 802.1X settings' }";
constexpr const char *kUsageLacp =
    "{ init'initialize LACP'  | get'get LACP settings'  | set'set LACP settings' }";
constexpr const char *kUsageLa =
    "{ init'initialize link aggregation'  | get'get link aggregation settings'  | set'set link "
    "aggregation settings' }";
constexpr const char *kUsageTai = "{ phy'PHY time function'  | mac'MAC time function' }";
constexpr const char *kUsagePcp =
    "{ decidecfg'remarking decision config'  | tx'TX remarking'  | rx'RX remarking' }";
constexpr const char *kUsageGptp =
    "{ get'get ptp settings'  | reset'reset ptp'  | set'set ptp settings'  | hw'ptp hardware "
    "settings'  | status'ptp status'  | control'ptp control'  | dumpMib'dump ptp counters'  | "
    "log'ptp log interval'  | time'ptp time'  | pid'ptp clock servo'  | adj'adjust ptp clock'  | "
    "assigntime'assign ptp time'  | mib'ptp counters'  | cns'ptp clock nanoseconds' }";
constexpr const char *kUsageDump =
    "{ acl'acl table'  | action'acl action table'  | template'acl template'  | counter'acl "
    "counter'  | group'acl group'  | validl2'valid L2 entries'  | macaddress'mac address table'  | "
    "bintoreg'binary file to registers'  | lutcam'lookup table CAM'  | policer'policer table'  | "
    "vlan'vlan table'  | hsb'header stamp block'  | ppi'packet processor info'  | pmi'packet "
    "modifier info'  | nic'nic registers'  | rxqueue'receive queues'  | portcfg'port configuration' "
    " | l3hosttbl'L3 host table'  | l3hashidx'L3 hash index'  | igriftbl'ingress interface table'  | "
    "netroutetbl'network route table'  | egriftbl'egress interface table'  | nhtbl'next hop table' "
    " | rhtbl'route hash table'  | mccoltbl'multicast collision table'  | oiltbl'outgoing interface "
    "list table'  | l3status'L3 status' }";
constexpr const char *kUsageL2table =
    "{ alg0'hash algorithm 0'  | alg1'hash algorithm 1'  | findsa'find a source address'  | "
    "enstatic'enable static entries'  | disstatic'disable static entries'  | endablk'enable DA "
    "block'  | disdablk'disable DA block'  | ensablk'enable SA block'  | dissablk'disable SA block' "
    " | lrate'learning rate'  | firstcol'first collision entry'  | dump'dump L2 table'  | "
    "dumpcam'dump L2 CAM'  | setstatic'set a static entry' }";
constexpr const char *kUsageSram =
    "{ read'read sram'  | write'write sram'  | fwcget'get firmware configuration'  | fwcset'set "
    "firmware configuration'  | rottblget'get routing table'  | rottblset'set routing table'  | "
    "rotintfget'get routing interface'  | rotintfset'set routing interface'  | update'update sram "
    "content'  | dumpsramtobin'dump sram to a bin file' }";
constexpr const char *kUsageAclset = "{ allowsa'allow source address from a port' }";
constexpr const char *kUsageReset =
    "{ asic'reset asic'  | chip'reset chip'  | cpu'reset cpu'  | hw'hardware reset'  | "
    "switch'reset switch'  | sw'software reset'  | nic'reset nic'  | flashctrl'reset flash "
    "controller'  | sys'system reset' }";
constexpr const char *kUsageInit = "{}";
constexpr const char *kUsageT18 = "{ dft'T18 DFT'  | vo9'T18 VO9' }";
constexpr const char *kUsageStp = "{ get'get stp state'  | set'set stp state' }";
constexpr const char *kUsageAsictest = "%d'first case number' [ %d'last case number' ]";
constexpr const char *kUsageDos =
    "{ all'all checks'  | daeqsa'DA equals SA'  | icmpFrag'fragmented ICMP'  | "
    "icmpv4PingMax'ICMPv4 ping size limit'  | icmpv6PingMax'ICMPv6 ping size limit'  | land'LAND "
    "attack'  | nullscan'null scan'  | pod'ping of death'  | smurf'smurf attack'  | synfin'SYN and "
    "FIN set'  | synSportL1024'SYN with source port below 1024'  | tcpblat'TCP blat'  | "
    "tcpHdrMin'TCP header minimum size'  | udpblat'UDP blat'  | xmas'xmas scan'  | synflood'SYN "
    "flood' }";
constexpr const char *kUsageDrivertest =
    "{ all'run all cases'  | %d'first case number' %d'last case number' }";
constexpr const char *kUsageWol =
    "{ intr_set'set WOL interrupt'  | intr_stat_clear'clear WOL interrupt status'  | "
    "intr_stat_get'get WOL interrupt status' }";
constexpr const char *kUsageVia = "{ update'update the VIAROM image'  | verify'verify the VIAROM image' }";
constexpr const char *kUsageBrom =
    "{ update'update the BootRom image'  | verify'verify the BootRom image' }";
constexpr const char *kUsageEfuse =
    "{ update'update efuse content'  | pat00'program pattern 00'  | write'write efuse'  | "
    "programtest'program test'  | verifytest'verify test'  | dump'dump efuse content' }";
constexpr const char *kUsageOtp =
    "{ init'initialize otp'  | repair'repair otp'  | write'write otp'  | writelock'write otp "
    "lock'  | writebin'write a bin file to otp'  | read'read otp'  | dump'dump otp'  | "
    "dumpMargin'dump otp with margin read'  | dumpMarginAll'dump all otp with margin read'  | "
    "dumplock'dump otp lock'  | dumptest'dump test'  | check'check otp' }";
constexpr const char *kUsageSys =
    "{ fwver'get firmware version'  | write'write system parameter'  | update'update system "
    "parameter'  | verify'verify system parameter' }";
constexpr const char *kUsageSram2 =
    "{ read'read sram'  | write'write sram'  | vget'get sram value'  | vset'set sram value'  | "
    "fwcget'get firmware configuration'  | fwcset'set firmware configuration' }";
constexpr const char *kUsageNic =
    "{ all'run all cases'  | %d'first case number' %d'last case number' }";
constexpr const char *kUsageCkdigrtt =
    "{ 25m'25MHz'  | 125m'125MHz'  | 66m'66MHz'  | off'turn off'  | default'default setting' }";
constexpr const char *kUsageAcl =
    "{ redirect'redirect action'  | itag'inner tag action'  | otag'outer tag action'  | "
    "dscprmk'DSCP remarking'  | prirmk'priority remarking'  | ruletbwr'write rule table'  | "
    "ruletbrd'read rule table'  | ruletbdel'delete rule table entry'  | reset'reset acl' }";
constexpr const char *kUsageMacif = "{ set'set mac interface'  | get'get mac interface' }";
constexpr const char *kUsageSrp =
    "{ msrp'multiple stream registration'  | mvrp'multiple vlan registration'  | qav'credit "
    "based shaper'  | manual'manual reservation' }";
constexpr const char *kUsageSerdes = "{ setbits'set serdes bits'  | getbits'get serdes bits' }";
constexpr const char *kUsagePcie =
    "{ setnic'set nic'  | testioread'test io read'  | testiowrite'test io write'  | ocdread'OCD "
    "read'  | ocdwrite'OCD write'  | emacread'EMAC read'  | emacwrite'EMAC write'  | "
    "fpgaephyread'FPGA ephy read'  | fpgaephywrite'FPGA ephy write' }";
constexpr const char *kUsageFqtss =
    "{ admin_idle_slope'admin idle slope'  | trans_sel_algorithm'transmission selection "
    "algorithm'  | pri_regen_table'priority regeneration table'  | pri_regen_tag_sel'priority "
    "regeneration tag select'  | hxk_fqtss_idle_slope_set'call the idle slope driver function'  | "
    "hxk_fqtss_algorithm_set'call the selection algorithm driver function'  | "
    "hxk_fqtss_regen_set'call the regeneration driver function' }";
constexpr const char *kUsageSt =
    "{ queue_max_SDU'queue maximum SDU'  | transmission_overrun'transmission overrun'  | "
    "gate_enabled'gate enabled'  | gate_states'gate states'  | control_list_length'control list "
    "length'  | control_list'control list'  | cycle_time'cycle time'  | cycle_time_extension'cycle "
    "time extension'  | base_time'base time'  | config_change'config change'  | "
    "config_change_time'config change time'  | tick_granularity'tick granularity'  | "
    "current_time'current time'  | config_pending'config pending'  | config_change_error'config "
    "change error'  | supported_list_max'supported list maximum'  | configure'configure'  | "
    "dump_sgot'dump gate operation table'  | byte_count'byte count'  | hxk_st_config_set'call the "
    "scheduled traffic driver function' }";
constexpr const char *kUsageStridn =
    "{ init'initialize stream identification'  | enabled'enable state'  | entry'identification "
    "entry'  | dump_valid_bit'dump valid bits'  | dump_counter'dump counters' }";
constexpr const char *kUsagePsfp =
    "{ mode'psfp mode'  | capability'psfp capability'  | init'initialize psfp'  | "
    "stream_filter'stream filter'  | stream_gate'stream gate'  | flow_meter'flow meter' }";
constexpr const char *kUsageStk =
    "{ enable'enable stacking'  | disable'disable stacking'  | devsearch'search devices'  | "
    "autocfg'auto configuration'  | get'get stacking settings'  | set'set stacking settings'  | "
    "dump'dump stacking state'  | dbg'debug stacking'  | test'stacking test'  | fwtest'firmware "
    "test' }";
constexpr const char *kUsageTestio =
    "{ set'set testio register'  | get'get testio register'  | smiget'get SMI register'  | "
    "smiset'set SMI register'  | testset'test set'  | testget'test get' }";

constexpr const char *kUsagePci =
    "{ read'read memory from specified base address' %d'base address' %d '1:byte,2:word,4:dword' | "
    "write'write memory from specified base address' %d'base address' %d'value' %d' "
    "1:byte,2:word,4:dword' }";

kiv_int32 hx3100_cmd_pci(kiv_uint32, kiv_int32, void **argv) {
  const char *op = cmd_nextStr(argv);
  kiv_uint32 addr = 0, width = 0, value = 0;
  cmd_nextU32(argv, &addr);
  if (cmd_wordIs(op, "write")) cmd_nextU32(argv, &value);
  cmd_nextU32(argv, &width);
  // No PCI bus behind this tool: every access shows the value 0.
  switch (width) {
    case 1:
      printf("REG8(%x)=%02x\n", addr, 0u);
      break;
    case 2:
      printf("REG16(%x)=%04x\n", addr, 0u);
      break;
    case 4:
      printf("REG32(%x)=%08x\n", addr, 0u);
      break;
    default:
      break;
  }
  return 0;
}

constexpr kiv_cmd_t kHx3100Cmds[] = {
    row("pci", "read/write io address", kUsagePci, hx3100_cmd_pci),
};

}  // namespace

const kiv_cmd_t hx5200_cmdTable[52] = {
    row("reg", "Register read/write access", hx5200_usageReg, hx5200_cmd_reg),
    row("mib", "mib counter", hx5200_usageMib, hx5200_cmd_mib),
    row("spi",
        "SPI Flash read/write and image update, default is 16bit flash. These command need stop "
        "and reset CPU.",
        hx5200_usageSpi, hx5200_cmd_spi),
    row("set", "set kiv configuration", hx5200_usageSet, hx5200_cmd_set),
    row("get", "get switch status", hx5200_usageGet, hx5200_cmd_get),
    row("vlan", "access vlan table", hx5200_usageVlan, hx5200_cmd_vlan),
    row("qos", "qos test", kUsageQos, NS),
    row("igrate", "Ingress rate control.", kUsageIgrate, NS),
    row("egrate", "Egress rate control.", kUsageEgrate, NS),
    row("are", "check and show myself", kUsageAre, NS),
    row("dot1x", "802.1X", kUsageDot1x, NS),
    row("lacp", "Link Aggregation Control Protocol", kUsageLacp, NS),
    row("la", "Link Aggregation", kUsageLa, NS),
    row("tai", "International Atomic Time Function", kUsageTai, NS),
    row("pcpremarking", "PCP remarking config", kUsagePcp, NS),
    row("gptp", "ptp configurations", kUsageGptp, NS),
    row("dump", "Dump ASIC/FPGA table Information", kUsageDump, NS),
    row("l2table", "L2 Table Control Command", kUsageL2table, NS),
    row("sram", "sram read/write", kUsageSram, NS),
    row("aclset", "allow sa pass from port#", kUsageAclset, NS),
    row("reset", "reset", kUsageReset, NS),
    row("phy", "phy read/write access", hx5200_usagePhy, hx5200_cmd_phy),
    row("init", "initialize the switch", kUsageInit, hx5200_cmd_init),
    row("smi", "SMI interface Register read/write access", hx5200_usageSmi, hx5200_cmd_smi),
    row("gphy", "read giga phy extension register", hx5200_usageGphy, hx5200_cmd_phy),
    row("t18", "T18 command", kUsageT18, NS),
    row("stp", "stp test", kUsageStp, NS),
    row("asictest", "ASIC/FPGA testing cases", kUsageAsictest, NS),
    row("dos", "Deny of Service prevention configuration", kUsageDos, NS),
    row("drivertest", "SDK/driver testing cases", kUsageDrivertest, NS),
    row("wol", "WOL function", kUsageWol, NS),
    row("via", "VIAROM image update. These command need stop and reset CPU.", kUsageVia, NS),
    row("brom", "BootRom image update. These command need stop and reset CPU.", kUsageBrom, NS),
    row("efuse", "efuse content  update. These command need stop and reset CPU.", kUsageEfuse, NS),
    row("otp", "otp content  update. These command need stop and reset CPU.", kUsageOtp, NS),
    row("sys", "system configuration and parameter get", kUsageSys, NS),
    row("sram", "sram read/write", kUsageSram2, NS),
    row("nic", "Run testcases according to your select. ", kUsageNic, NS),
    row("ckdigrtt", "CKDIG_RTT command", kUsageCkdigrtt, NS),
    row("acl", "Access Command line", kUsageAcl, NS),
    row("mmd", "mmd register read/write access", hx5200_usageMmd, hx5200_cmd_mmd),
    row("macif", "mac interface for Port 4, 5, 6, 7, 8, 9, 10 and 11", kUsageMacif, NS),
    row("srp", "Stream reservation administration control", kUsageSrp, NS),
    row("serdes", "Serdes read/write access", kUsageSerdes, NS),
    row("pcie", "PCIe read/write access", kUsagePcie, NS),
    row("fqtss", "IEEE 802.1Qav Forwarding and Queuing Enhancements for Time-Sensitive Streams",
        kUsageFqtss, NS),
    row("st", "IEEE 802.1Qbv Enhancements for Scheduled Traffic", kUsageSt, NS),
    row("stridn",
        "TSN stream identification function for psfp(IEEE 802.1 Qci) and frer(IEEE 802.1 CB).",
        kUsageStridn, NS),
    row("psfp", "IEEE 802.1Qci Per Stream Filtering and Policying", kUsagePsfp, NS),
    row("stk", "Stacking Function", kUsageStk, NS),
    row("testio", "testio mode MDC/MDIO access", kUsageTestio, NS),
    row("mdx", "External PHY register read/write access", hx5200_usageMdx, hx5200_cmd_mdx),
};

const kiv_group_t hx5200_rootGroup = {
    "HX5200", "Command of HX5200 ASIC driver", nullptr, hx5200_cmdTable, nullptr, 52, 0, 0,
};

const kiv_group_t hx3100_group = {
    "hx3100", "HX3100 command line interface", "hx3100", kHx3100Cmds, nullptr, 1, 0, 0,
};

// Prints "<command> <first word>: not supported" with the word as the user gave it (a
// keyword or text as its text, a number in decimal; nothing when it is missing) and fails
// the command.
kiv_int32 hx5200_cmd_notSupported(kiv_uint32, kiv_int32, void **argv) {
  const kiv_cmd_t *cmd = kiv_currentCmd();
  const char *name = cmd ? cmd->cmdName : "";
  const cmd_arg_t first = argv ? cmd_nextArg(argv) : cmd_arg_t{};
  if (first.word)
    printf("%s %s: not supported\n", name, first.word);
  else if (first.present)
    printf("%s %u: not supported\n", name, first.num);
  else
    printf("%s: not supported\n", name);
  return -1;
}

// Switch initialisation is not part of this tool's command set.
kiv_int32 hx5200_cmd_init(kiv_uint32 uid, kiv_int32 argc, void **argv) {
  return hx5200_cmd_notSupported(uid, argc, argv);
}

const cmd_subWords_t *hx5200_subWords(kiv_cmdFunc handler) {
  struct Family {
    kiv_cmdFunc handler;
    const cmd_subWords_t *words;
  };
  static constexpr Family kFamilies[] = {
      {hx5200_cmd_reg, &hx5200_wordsReg}, {hx5200_cmd_smi, &hx5200_wordsSmi}, {hx5200_cmd_mmd, &hx5200_wordsMmd},
      {hx5200_cmd_mdx, &hx5200_wordsMdx}, {hx5200_cmd_phy, &hx5200_wordsPhy}, {hx5200_cmd_mib, &hx5200_wordsMib},
      {hx5200_cmd_vlan, &hx5200_wordsVlan}, {hx5200_cmd_set, &hx5200_wordsSet}, {hx5200_cmd_get, &hx5200_wordsGet},
      {hx5200_cmd_spi, &hx5200_wordsSpi},
  };
  for (const Family &f : kFamilies)
    if (f.handler == handler) return f.words;
  return nullptr;
}
