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

constexpr const char *kUsageReg =
    "{  set'Set content of register' { %d'Reg Address'%d'Data' }  |  get'Get content of register' { "
    "%d'Address' }  |  setbit'Set bit value of register' { %d'Reg Address'%d'Bit Address' %d'Bit "
    "Data' }  |  getbit'Get bit value of register' { %d'Reg address'%d'Bit address' }  |  "
    "setbits'Set bits value of register' { %d'Reg address'%d'Start bit number'%d'End bit "
    "number'%d'Filed value' }  |  getbits'Get bits value of register' { %d'Reg address'%d'Start bit "
    "number'%d'End bit number' }  |  getburst'Get content of register' { %d'Address' %d 'get "
    "numbers back'}  | chgpage'Change page' { axi'AXI' | cpu'CPU domain' | swcore'Switch core' | "
    "spic'SPI Control' | current'Current page' | %d'page number' }  |  indirset'Set content of "
    "register' { %d'Reg Address'%d'Data' }  |  indirget'Get content of register' { %d'Address' }  }";

constexpr const char *kUsageMib =
    "{ enable'enable mib counter'  |  read'read mib counter'  {  %d'port number'  }  |  sys'read "
    "system mib counter'  |  lag'read lag mib counter'  {  %d'lag number'  }  |  route'read routing "
    "mib counter'  {  %d'routing port number'  }  |  sread'monitor link state and CRC' { "
    "%d'port'%d'test mode 0=none 1=CRC 2=linkState 3=CRC and linkState' }  |  dread'monitor link "
    "state and CRC' { %d'port'%d'test mode 0=none 1=CRC 2=linkState 3=CRC and linkState'%d'dump "
    "register type 0=SWR 1 =OCP'%d'dump register address' }  |  dumpreg'dump register to file' { "
    "%d'register type 0=SWR 1=OCP'%d'register address' }  |  rwaketest'remote wake test for DPI and "
    "Transient'  {  %d'port number'  }  |  clear'clear the mib counter'  {  %d'port number'  }  |  "
    "clearall'clear the mib counter on all ports' }";

constexpr const char *kUsageSpi =
    "{ read'read flash'  {  %d'Start address' %d'length (should be less then 2K Byte)'  }  | "
    "write'write a byte to flash'  {  %d'Address' %d'data' %d'length 1~4byte'  }  | erase 'erase spi "
    "flash'  {  all'erase the whole flash'  |  sector'erase sectors (unit:4KB)' { %d'Start sector "
    "number'%d'End sector number' }  |  block'erase blocks (unit:64KB)' { %d'Start block "
    "number'%d'End block number' }  }  | update'update the irom image' %s'file name'  | "
    "updatecfg'update the configuration bin file' %s'file name'  | cal 'calibrate SPIC'  | auto 'set "
    "SPIC auto mode'  | setsysdly 'sets SPIC sysdelay' %d  | getsysdly 'gets SPIC sysdelay'  | setspd "
    "'sets SPIC clock' %d'100, 75, 50, 33, 12'  | getspd 'gets SPIC clock'  | setch 'sets SPIC "
    "channel: 1, 2, 4' %d'1, 2, 4'  | getch 'gets SPIC channel'  | rdsr'read the status register of "
    "spi flash'  | rdcr'read the status and control register of spi flash'  | rdid'read the chip ID "
    "of spi flash'  | wrsr'write the status or configuration of spi flash'  {  1'1: set status "
    "(1byte) only' %d'status data'  |  2'2: set status (1byte) and config-1 (1byte)' %d'status data' "
    "%d'config-1 data'  }  | wren'write enable'  | wrdi'wrdi write disable'  | dumptobin'flash dump to "
    "a bin file' %d'start address' %d'length'  | clearprotect'clear the block protect'  | "
    "pgwithbase'update the irom image' %s'file name ' %d 'the start address of the file' %d 'the "
    "start address of the flash' %d 'length'  | pg0861flash'update the irom image' %s'file name ' %d "
    "'flash fw # ' %d 'using key of fw '  | pg0861flash2'update the irom image' %s 'file 1 name ' %s "
    "'file 2 name ' %d 'using key of fw '  | verifywithbase'verify the image' %s'file name ' %d 'the "
    "start address of the file' %d 'the start address of the flash' %d 'length'  | verify'verify the "
    "image' %s'file name' }";

constexpr const char *kUsageSet =
    "{ regif'register interface' %s'name'  | mibfmt'MIB counter hex/decimal' %s'name'  | "
    "mdxid'MDCMDIO interface ID' %d'name'  | i2cid'I2C interface ID' %d'name'  | autocal'enable auto "
    "Calibration '%d'portMsk'  | chipver'HX5200 version number' %s'version'  | rwake'HX5200 remote "
    "wake test' %d'port'  | reset'HX5200 remote wake test' %d'port'  | portmode'HX5200 port mode "
    "setting' %d'port' %d'mode'  | portmodeinternal'HX5200 port mode setting' %d'port mask' %d'port "
    "mode LSB byte1' %d'port mode LSB byte2' %d'port mode MSB byte1' %d'port mode MSB byte2' | "
    "savecontest'SDK save config test'  | wrimage'write image directly ' %s 'filename'  | "
    "wrrotcfg'write routing configuration directly ' %s 'filename'  | wrpatch'write patch code "
    "directly with patch code only' %s 'filename'  | wrptpconfig'write ptp config directly with ptp "
    "config only' %s 'filename' | wrfwconfig'write firmware configuration directly with firmware "
    "config only' %s 'filename'  | wrrotconfig'write external routing configuration directly ' %s "
    "'filename'  | getcontest'SDK get currnet disablePort and PortRole test'  | setest'SPI sector "
    "erase test'  | read36ktest'read back 36k config bin test'  | read04ktest'read back 04k config "
    "bin test'  | write04ktest'program back 04k config bin test'  | e0tdly'E0 port TX delay' "
    "%d'delay'  | e0rdly'E0 port RX delay' %d'delay'  | spich 'Sets number of SPIC channel (OTP "
    "config.)' %d 'channel number'  | spispd'Sets speed of SPIC' %s 'high or low'  | spils' Sets low "
    "speed of SPIC (OTP config.)' %s '33MHz or 50MHz' }";

constexpr const char *kUsageGet = "{ fwver'get firmware version'  | chipver'get chip version' }";

constexpr const char *kUsageVlan =
    "{  set'set vlan entry' { %d'vlan id' %d'member port mask' %d'untag port mask' %d'fid' "
    "%d'ulfid, 0-1' %d'vbfwd, 0-1'}  |  get'get vlan entry' %d'vlan id'  |  dump'dump vlan'  |  "
    "init'init vlan'  |  mode'Set/Get multicast settings' { multicast'Multicast settings' { get'Get "
    "multicast settings'  | set'Set According to FID from table or not. Fix Multicast FID or not. "
    "Fix Multicast FID' { %d'Using FID L2 table or not' %d'Using Fix Multicast FID' %d'Multicast "
    "FID' } } }  | pvid'Port pvid' %d'Port id'  { inner'Inner tag Default PVID'  { get'Get PVID'  | "
    "set'Set PVID' %d'PVID'  }  | outer'Outer tag PVID'  { get'Get PVID'  | set'Set PVID' %d'PVID'  "
    "}  }  | igfilter'Ingress filter'  { set'Set'  { %d'Port id'  { enable'Enable'  | "
    "disable'Disable'  } | all'All port'  { enable'Enable'  | disable'Disable'  }  }  | get'Get'  { "
    "%d'Port id'  | all'All port'  }  }  | egfilter'Egress filter'  { set'Set'  { %d'Port id'  { "
    "enable'Enable'  | disable'Disable'  } | all'All port'  { enable'Enable'  | disable'Disable'  }  "
    "}  | get'Get'  { %d'Port id'  | all'All port'  }  }  | igretag 'Ingress VLAN Retagging'  { "
    "init'Initialize'  | set'Set'  { status'Set status' { { %d'Port id' | all } { enable | disable } "
    "}  | entry'Set an entry' { %d'Index, 0-31' %d'Original VLAN ID to be replaced' %d'New VLAN ID' "
    "%d'Affected ingress port mask' %d'Valid bit' }  }  | get'Get'  { status'Get status' { %d'Port "
    "id' | all }  | entry'Get an entry' { %d'Index, 0-31' | all }  }  }  | egretag 'Egress VLAN "
    "Retagging'  { init'Initialize'  | set'Set'  { status'Set status' { { %d'Port id' | all } { "
    "enable | disable } }  | entry'Set an entry' { %d'Index, 0-31' %d'Original VLAN ID to be "
    "replaced' %d'New VLAN ID' %d'Affected egress port mask' %d'Valid bit' }  }  | get'Get'  { "
    "status'Get status' { %d'Port id' | all }  | entry'Get an entry' { %d'Index, 0-31' | all }  }  } "
    "}";

constexpr const char *kUsageSmi =
    "{  set'Set content of register' { %d'phyID' %d'Register Address'%d'Data' }  |  get'Get content "
    "of register' { %d'phyID' %d'Register Address' }  |  brdset'Broadcast to PHY port' { %d'Port "
    "mask' %d'Page' %d'offset' %d'value' }  |  extaccess' Select MDC/MDIO interface to GPIO pin'  { "
    "get'Get current settings'  | set'Set' %d'0:MAC 1: PHY'  }  | channel'MDC/MDIO Channel access'  "
    "{ get'Get' { %d'phyID. 0xB for T18' %d'Page' %d'Reg' } | set'Set' { %d'phyID. 0xB for T18' "
    "%d'Page' %d'Reg' %d'Value' } } }";

constexpr const char *kUsageMmd =
    "{ read'read mmd register' { %d'phy number' %d'device id' %d'reg address'}  | write'write mmd "
    "register' { %d'phy number' %d'device id' %d'reg address' %d'reg vale' } }";

constexpr const char *kUsageMdx =
    "{  init 'Init MDX controller '  { %d 'baud rate. The mdx clock = 12.5MHz / baudrate'  { %d "
    "'preamble: 0, 8, 16, 32'  }  }  |  set'Set content of register' { %d'PHY ID: 0~31'%d'Reg "
    "Address'%d'Data' }  |  get'Get content of register' { %d'PHY ID: 0~31'%d'Address' } }";

constexpr const char *kUsageGphy =
    "{ readext'read register of extension page of giga phy' { %d'page' %d'reg address'}  | "
    "writeext'write value into register of extension page of giga phy' { %d'page' %d'reg address' "
    "%d'reg vale' } }";

constexpr const char *kUsagePhy =
    "{ r'R calibration of a phy' { %d'phy number' }  | rc'RC calibration of a phy' { %d'phy number' "
    "}  | read'read phy register' { %d'phy number' %d'page' %d'reg address' }  | write'write phy "
    "register' { %d'phy number' %d'page' %d'reg address' %d'reg value' }  | testmode'set phy test "
    "mode' { %d'phy number' %d'test mode' }  | rtpgetm'get phy RTP measurement' { %d'phy number' }  "
    "| phyreset'reset a phy' { %d'phy number' }  | reset'reset all phys'  | enable'enable or disable "
    "a phy' { %d'phy number' %d'0:disable 1:enable' }  | role'set phy master/slave role' { %d'phy "
    "number' %d'0:slave 1:master' }  | autopolarity'set phy auto polarity' { %d'phy number' "
    "%d'0:off 1:on' }  | linkst'get phy link status' { %d'phy number' }  | outputlinkst'output link "
    "status on GPIOC0' { %d'phy number' }  | pktgen'phy packet generator' { %d'phy number' "
    "%d'packet count' }  | channel'phy MDC/MDIO channel access' { %d'phy number' }  | ocp2reg'read "
    "phy register by OCP address' { %d'OCP address' }  | mdc2reg'read phy register by MDIO address' "
    "{ %d'phy number' %d'reg address' } }";

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
  if (op && std::strcmp(op, "write") == 0) cmd_nextU32(argv, &value);
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
    row("reg", "Register read/write access", kUsageReg, hx5200_cmd_reg),
    row("mib", "mib counter", kUsageMib, hx5200_cmd_mib),
    row("spi",
        "SPI Flash read/write and image update, default is 16bit flash. These command need stop "
        "and reset CPU.",
        kUsageSpi, hx5200_cmd_spi),
    row("set", "set kiv configuration", kUsageSet, hx5200_cmd_set),
    row("get", "get switch status", kUsageGet, hx5200_cmd_get),
    row("vlan", "access vlan table", kUsageVlan, hx5200_cmd_vlan),
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
    row("phy", "phy read/write access", kUsagePhy, hx5200_cmd_phy),
    row("init", "initialize the switch", kUsageInit, hx5200_cmd_init),
    row("smi", "SMI interface Register read/write access", kUsageSmi, hx5200_cmd_smi),
    row("gphy", "read giga phy extension register", kUsageGphy, hx5200_cmd_phy),
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
    row("mmd", "mmd register read/write access", kUsageMmd, hx5200_cmd_mmd),
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
    row("mdx", "External PHY register read/write access", kUsageMdx, hx5200_cmd_mdx),
};

const kiv_group_t hx5200_rootGroup = {
    "HX5200", "Command of HX5200 ASIC driver", nullptr, hx5200_cmdTable, nullptr, 52, 0, 0,
};

const kiv_group_t hx3100_group = {
    "hx3100", "HX3100 command line interface", "hx3100", kHx3100Cmds, nullptr, 1, 0, 0,
};

// Prints "<command> <first word>: not supported" with the word as the user gave it (a
// keyword or text as its text, a number in decimal) and fails the command.
kiv_int32 hx5200_cmd_notSupported(kiv_uint32, kiv_int32, void **argv) {
  const kiv_cmd_t *cmd = kiv_currentCmd();
  const char *name = cmd ? cmd->cmdName : "";
  void *value = nullptr;
  kiv_uint32 size = 0;
  if (argv == nullptr || kiv_getNextCmdToken(argv, &value, &size) != 0 || value == nullptr) {
    printf("%s: not supported\n", name);
  } else if (size == 4) {
    // Only "%d" values come with size 4 in these grammars (no repeatable keywords).
    kiv_uint32 n;
    std::memcpy(&n, value, 4);
    printf("%s %u: not supported\n", name, n);
  } else if (size != 0) {
    printf("%s %.*s: not supported\n", name, static_cast<int>(size), static_cast<const char *>(value));
  } else {
    printf("%s %s: not supported\n", name, static_cast<const char *>(value));
  }
  return -1;
}

// Switch initialisation is not part of this tool's command set.
kiv_int32 hx5200_cmd_init(kiv_uint32 uid, kiv_int32 argc, void **argv) {
  return hx5200_cmd_notSupported(uid, argc, argv);
}
