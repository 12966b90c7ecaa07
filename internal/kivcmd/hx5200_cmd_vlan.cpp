// `vlan`: VLAN table, multicast lookup mode, default VLANs, filtering and retagging.
#include <array>
#include <cstdio>
#include <cstring>

#include "access/access.h"
#include "internal/common/hx5200_regasicdrv.h"
#include "internal/common/hxk_vlan.h"
#include "internal/kivcmd/hx5200_cmd.h"

namespace {

// The API reports these conditions with other codes; the handler compares with these values
// all the same, as the command was built.
constexpr kiv_int32 kCmdVidError = 0x10000;
constexpr kiv_int32 kCmdEntryNotFound = 0x10005;
constexpr uint32_t kFilterPortMax = 7;
constexpr uint32_t kFilterAllLast = 6;   // "all" covers ports 0..6
constexpr uint32_t kMcFidMax = 16;

// A failure the command shows only by what it prints (or not at all): the line counts as
// failed all the same (-e). Returns rc.
kiv_int32 noted(kiv_int32 rc) {
  if (rc != 0) kiv_markLineFailed();
  return rc;
}

void printEntry(uint32_t vid, uint32_t mbrmsk, uint32_t untagmsk, uint8_t fid, uint8_t ulfid, uint8_t vbfwd) {
  printf("get vlan table : vid = %d, mbrmsk = 0x%x, untagmsk = 0x%x, fid = %d, ulfid = %d, vbfwd = %d, valid = %d\n",
         static_cast<int>(vid), mbrmsk, untagmsk, fid, ulfid, vbfwd, 1);
}

struct Entry {
  uint32_t mbrmsk = 0, untagmsk = 0, statefulmsk = 0;
  uint8_t fid = 0, ulfid = 0, vbfwd = 0, interface_id = 0, interface_valid = 0;
};

kiv_int32 getEntry(uint32_t vid, Entry &e) {
  return hxk_vlan_get(vid, &e.mbrmsk, &e.untagmsk, &e.statefulmsk, &e.fid, &e.ulfid, &e.vbfwd, &e.interface_id,
                      &e.interface_valid);
}

// ---- table -----------------------------------------------------------------------------------

kiv_int32 vlanSet(void **argv) {
  const uint32_t vid = cmd_nextNumOr(argv, 0);
  // Fields without an argument are carried over from the entry being replaced.
  Entry old;
  if (const kiv_int32 rc = getEntry(vid, old); rc != 0) {
    old.statefulmsk = 0;
    if (rc != HXK_ERR_VLAN_ENTRY_NOT_FOUND) kiv_markLineFailed();   // the kept fields are unknown
  }
  const uint32_t mbrmsk = cmd_nextNumOr(argv, 0);
  const uint32_t untagmsk = cmd_nextNumOr(argv, 0);
  const uint32_t fid = cmd_nextNumOr(argv, 0);
  const uint32_t ulfid = cmd_nextNumOr(argv, 0);
  const uint32_t vbfwd = cmd_nextNumOr(argv, 0);
  if (hxk_vlan_set(vid, mbrmsk, untagmsk, old.statefulmsk, fid, ulfid, vbfwd, old.interface_id,
                   old.interface_valid) != 0) {
    puts("vlan set failed !");
    return -1;
  }
  printf("set vlan table : vid = %d, mbrmsk = %d, untagmsk = %d, fid = %d, ulfid = %d, vbfwd = %d, valid = %d\n",
         static_cast<int>(vid), static_cast<int>(mbrmsk), static_cast<int>(untagmsk), static_cast<int>(fid),
         static_cast<int>(ulfid), static_cast<int>(vbfwd), 1);
  return 0;
}

kiv_int32 vlanGet(void **argv) {
  const uint32_t vid = cmd_nextNumOr(argv, 0);
  Entry e;
  const kiv_int32 ret = getEntry(vid, e);
  if (ret == 0) {
    printEntry(vid, e.mbrmsk, e.untagmsk, e.fid, e.ulfid, e.vbfwd);
  } else if (ret == kCmdEntryNotFound) {
    puts("vlan entry not found !");
  } else {
    puts("vlan table get failed !");
    kiv_markLineFailed();   // the command itself still ends in success
  }
  return 0;
}

kiv_int32 vlanDump(void **) {
  for (uint32_t vid = 1; vid < HXK_VLAN_VID_MAX; ++vid) {
    Entry e;
    const kiv_int32 rc = getEntry(vid, e);
    if (rc == 0)
      printEntry(vid, e.mbrmsk, e.untagmsk, e.fid, e.ulfid, e.vbfwd);
    else if (rc != HXK_ERR_VLAN_ENTRY_NOT_FOUND)
      kiv_markLineFailed();   // an entry that could not be read is missing from the dump
  }
  return 0;
}

// ---- multicast lookup mode ---------------------------------------------------------------

const char *yesNo(uint32_t v) { return v == 1 ? "Yes" : "No"; }

kiv_int32 vlanMode(void **argv) {
  if (!cmd_wordIs(cmd_nextStr(argv), "multicast")) return 0;
  const char *op = cmd_nextStr(argv);
  if (cmd_wordIs(op, "get")) {
    uint32_t useFid = 0, fixEn = 0, fid = 0;
    noted(reg_field_read(1, L2_MC_LOOKUP_CTRL, L2_MC_LOOKUP_CTRL_USE_FID_LSP, L2_MC_LOOKUP_CTRL_USE_FID_LEN, &useFid));
    noted(reg_field_read(1, L2_MC_LOOKUP_CTRL, L2_MC_LOOKUP_CTRL_FIX_FID_EN_LSP, L2_MC_LOOKUP_CTRL_FIX_FID_EN_LEN,
                         &fixEn));
    noted(reg_field_read(1, L2_MC_LOOKUP_CTRL, L2_MC_LOOKUP_CTRL_FIX_FID_LSP, L2_MC_LOOKUP_CTRL_FIX_FID_LEN, &fid));
    printf("Look up table using FID    :%u(%s)\r\n", useFid, yesNo(useFid));
    printf("Look up table using Fix FID:%u(%s)\r\n", fixEn, yesNo(fixEn));
    printf("                    Fix FID:%u\r\n", fid);
    return 0;
  }
  if (cmd_wordIs(op, "set")) {
    uint32_t useFid = cmd_nextNumOr(argv, 0) & 0xFFu;
    uint32_t fixEn = cmd_nextNumOr(argv, 0) & 0xFFu;
    const uint32_t fid = cmd_nextNumOr(argv, 0) & 0xFFu;
    if (useFid > 1) useFid = 0;
    if (fixEn > 1) fixEn = 0;
    if (fid > kMcFidMax) {
      puts("Incorrect Multicast fid value.\r");
      return -1;
    }
    noted(reg_field_write(1, L2_MC_LOOKUP_CTRL, L2_MC_LOOKUP_CTRL_USE_FID_LSP, L2_MC_LOOKUP_CTRL_USE_FID_LEN, useFid));
    noted(reg_field_write(1, L2_MC_LOOKUP_CTRL, L2_MC_LOOKUP_CTRL_FIX_FID_EN_LSP, L2_MC_LOOKUP_CTRL_FIX_FID_EN_LEN,
                          fixEn));
    noted(reg_field_write(1, L2_MC_LOOKUP_CTRL, L2_MC_LOOKUP_CTRL_FIX_FID_LSP, L2_MC_LOOKUP_CTRL_FIX_FID_LEN, fid));
  }
  return 0;
}

// ---- default VLANs -----------------------------------------------------------------------

kiv_int32 vlanPvid(void **argv) {
  const uint32_t port = cmd_nextNumOr(argv, 0) & 0xFFu;
  const char *tag = cmd_nextStr(argv);
  const bool outer = cmd_wordIs(tag, "outer");
  if (!outer && !cmd_wordIs(tag, "inner")) return 0;
  // Read first: a set keeps the priority (and the outer tag's DEI) already configured.
  uint32_t pvid = 0, pri = 0, dei = 0;
  noted(outer ? hxk_vlan_portOuterPvid_get(port, &pvid, &pri, &dei) : hxk_vlan_portPvid_get(port, &pvid, &pri));
  const char *op = cmd_nextStr(argv);
  if (cmd_wordIs(op, "get")) {
    printf("Port %u PVID:%u\r\n", port, pvid);
    return 0;
  }
  if (cmd_wordIs(op, "set")) {
    const uint32_t newPvid = cmd_nextNumOr(argv, 0);
    const kiv_int32 ret = outer ? hxk_vlan_portOuterPvid_set(port, newPvid, pri, dei)
                                : hxk_vlan_portPvid_set(port, newPvid, pri);
    if (ret == kCmdVidError) {
      printf("Incorrect VID (%u)\r\n", newPvid);
      return -1;
    }
    noted(ret);
  }
  return 0;
}

// ---- filtering ---------------------------------------------------------------------------

// Port range of "<port>" or "all"; false (with the message) for a port above 7.
bool filterPorts(const cmd_arg_t &a, uint32_t &first, uint32_t &last) {
  if (cmd_wordIs(a.word, "all")) {
    first = 0;
    last = kFilterAllLast;
    return true;
  }
  const uint32_t port = a.num & 0xFFu;
  if (port > kFilterPortMax) {
    printf("Incorrect port id (%u)\r\n", port);
    return false;
  }
  first = last = port;
  return true;
}

// Both `igfilter` and `egfilter` switch ingress filtering: that is the command as built.
kiv_int32 vlanFilter(void **argv) {
  const char *op = cmd_nextStr(argv);
  uint32_t first = 0, last = 0;
  if (cmd_wordIs(op, "set")) {
    if (!filterPorts(cmd_nextArg(argv), first, last)) return -1;
    const uint32_t enable = cmd_wordIs(cmd_nextStr(argv), "enable") ? 1 : 0;
    for (uint32_t p = first; p <= last; ++p) noted(hxk_vlan_portIgrFilterEn_set(p, enable));
    return 0;
  }
  if (cmd_wordIs(op, "get")) {
    if (!filterPorts(cmd_nextArg(argv), first, last)) return -1;
    puts("port id\tIGFILTER\r");
    uint32_t enable = 0;
    for (uint32_t p = first; p <= last; ++p) {
      noted(hxk_vlan_portIgrFilterEn_get(p, &enable));
      printf("%u\t%s\r\n", p, enable ? "ENABLE" : "DISABLE");
    }
    puts("\r");
    return 0;
  }
  return 0;
}

// ---- retagging ---------------------------------------------------------------------------

struct RetagOps {
  kiv_int32 (*statusSet)(uint32_t, uint32_t);
  kiv_int32 (*statusGet)(uint32_t, uint32_t *);
  kiv_int32 (*entrySet)(uint32_t, uint32_t, uint32_t, uint32_t, uint8_t);
  kiv_int32 (*entryGet)(uint32_t, uint32_t *, uint32_t *, uint32_t *, uint8_t *);
  bool egress;   // egress table: its init leaves ports 10 and 11 alone
};

constexpr RetagOps kIgrRetag{hxk_vlan_igrRetagStatus_set, hxk_vlan_igrRetagStatus_get, hxk_vlan_igrRetagEntry_set,
                             hxk_vlan_igrRetagEntry_get, false};
constexpr RetagOps kEgrRetag{hxk_vlan_egrRetagStatus_set, hxk_vlan_egrRetagStatus_get, hxk_vlan_egrRetagEntry_set,
                             hxk_vlan_egrRetagEntry_get, true};

kiv_int32 retagInit(const RetagOps &ops) {
  for (uint32_t p = 0; p <= HXK_VLAN_PORT_MAX; ++p) {
    if (ops.egress && (p == 10 || p == 11)) continue;
    if (ops.statusSet(p, 0) != 0) return -1;
  }
  for (uint32_t i = 0; i < HXK_VLAN_RETAG_ENTRIES; ++i)
    if (ops.entrySet(i, 0, 0, 0, 0) != 0) return -1;
  return 0;
}

kiv_int32 retagSet(const RetagOps &ops, void **argv) {
  const char *what = cmd_nextStr(argv);
  if (cmd_wordIs(what, "status")) {
    const cmd_arg_t target = cmd_nextArg(argv);
    const uint32_t enable = cmd_wordIs(cmd_nextStr(argv), "enable") ? 1 : 0;
    if (cmd_wordIs(target.word, "all")) {
      for (uint32_t p = 0; p <= HXK_VLAN_PORT_MAX; ++p)
        if (ops.statusSet(p, enable) != 0) return -1;
      return 0;
    }
    return ops.statusSet(target.num, enable) == 0 ? 0 : -1;
  }
  if (cmd_wordIs(what, "entry")) {
    const uint32_t index = cmd_nextNumOr(argv, 0);
    const uint32_t origVid = cmd_nextNumOr(argv, 0);
    const uint32_t newVid = cmd_nextNumOr(argv, 0);
    const uint32_t mask = cmd_nextNumOr(argv, 0);
    const uint8_t valid = static_cast<uint8_t>(cmd_nextNumOr(argv, 0));
    return ops.entrySet(index, origVid, newVid, mask, valid) == 0 ? 0 : -1;
  }
  return -1;
}

kiv_int32 retagGet(const RetagOps &ops, void **argv) {
  const char *what = cmd_nextStr(argv);
  const cmd_arg_t target = cmd_nextArg(argv);
  const bool all = cmd_wordIs(target.word, "all");
  if (cmd_wordIs(what, "status")) {
    const uint32_t first = all ? 0 : target.num, last = all ? HXK_VLAN_PORT_MAX : target.num;
    for (uint32_t p = first; p <= last; ++p) {
      uint32_t enable = 0;
      if (ops.statusGet(p, &enable) != 0) return -1;
      printf("Port %u: %s\n", p, enable ? "Enabled" : "Disabled");
    }
    return 0;
  }
  if (cmd_wordIs(what, "entry")) {
    const uint32_t first = all ? 0 : target.num, last = all ? HXK_VLAN_RETAG_ENTRIES - 1 : target.num;
    for (uint32_t i = first; i <= last; ++i) {
      uint32_t origVid = 0, newVid = 0, mask = 0;
      uint8_t valid = 0;
      if (ops.entryGet(i, &origVid, &newVid, &mask, &valid) != 0) return -1;
      printf("Entry %u:\n", i);
      printf("  - Original VLAN ID = %u\n", origVid);
      printf("  - New VLAN ID = %u\n", newVid);
      if (ops.egress)
        printf("  - Affected Egress Port Mask = 0x%x\n", mask);
      else
        printf("  - Affected Ingress Port Mask = 0x%x\n", mask);
      printf("  - Valid = %u\n\n", valid);
    }
    return 0;
  }
  return -1;
}

using RetagFn = kiv_int32 (*)(const RetagOps &ops, void **argv);
kiv_int32 retagInitCmd(const RetagOps &ops, void **) { return retagInit(ops); }
constexpr auto kRetagCmds = std::to_array<cmd_sub_t<RetagFn>>({
    {"init", retagInitCmd},
    {"set", retagSet},
    {"get", retagGet},
});

kiv_int32 vlanRetag(const RetagOps &ops, void **argv) {
  const cmd_sub_t<RetagFn> *row = cmd_findSub(kRetagCmds, cmd_nextStr(argv));
  return row ? row->fn(ops, argv) : -1;
}

kiv_int32 vlanIgRetag(void **argv) { return vlanRetag(kIgrRetag, argv); }
kiv_int32 vlanEgRetag(void **argv) { return vlanRetag(kEgrRetag, argv); }

kiv_int32 vlanInit(void **) {
  puts(noted(hxk_vlan_init()) == 0 ? "vlan init success !" : "vlan init failed !");
  return 0;
}

}  // namespace

const char hx5200_usageVlan[] =
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

namespace {
constexpr auto kVlanCmds = std::to_array<cmd_sub_t<>>({
    {"set", vlanSet},
    {"get", vlanGet},
    {"dump", vlanDump},
    {"init", vlanInit},
    {"mode", vlanMode},
    {"pvid", vlanPvid},
    {"igfilter", vlanFilter},
    {"egfilter", vlanFilter},
    {"igretag", vlanIgRetag},
    {"egretag", vlanEgRetag},
});
}  // namespace

kiv_int32 hx5200_cmd_vlan(kiv_uint32 /*uid*/, kiv_int32 /*argc*/, void **argv) {
  return cmd_runSub(kVlanCmds, cmd_nextStr(argv), argv, -1);
}

const cmd_subWords_t hx5200_wordsVlan = cmd_subWords(kVlanCmds);
