// `vlan`: VLAN table, multicast lookup mode, default VLANs, filtering and retagging.
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

// One value handed out by the parser: a keyword (text) or a number.
struct Arg {
  const char *word = nullptr;   // keyword text, or null for a number
  uint32_t num = 0;
  bool present = false;
};

Arg nextArg(void **argv) {
  Arg a;
  void *p = nullptr;
  kiv_uint32 sz = 0;
  if (!cmd_next(argv, &p, &sz) || p == nullptr) return a;
  a.present = true;
  if (sz == 0)
    a.word = static_cast<const char *>(p);
  else if (sz == 4)
    std::memcpy(&a.num, p, 4);
  return a;
}

const char *nextWord(void **argv) {
  const Arg a = nextArg(argv);
  return a.word ? a.word : "";
}

uint32_t nextNum(void **argv) { return nextArg(argv).num; }

bool is(const char *word, const char *kw) { return std::strcmp(word, kw) == 0; }

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
  const uint32_t vid = nextNum(argv);
  // Fields without an argument are carried over from the entry being replaced.
  Entry old;
  if (getEntry(vid, old) != 0) old.statefulmsk = 0;
  const uint32_t mbrmsk = nextNum(argv);
  const uint32_t untagmsk = nextNum(argv);
  const uint32_t fid = nextNum(argv);
  const uint32_t ulfid = nextNum(argv);
  const uint32_t vbfwd = nextNum(argv);
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
  const uint32_t vid = nextNum(argv);
  Entry e;
  const kiv_int32 ret = getEntry(vid, e);
  if (ret == 0)
    printEntry(vid, e.mbrmsk, e.untagmsk, e.fid, e.ulfid, e.vbfwd);
  else if (ret == kCmdEntryNotFound)
    puts("vlan entry not found !");
  else
    puts("vlan table get failed !");
  return 0;
}

kiv_int32 vlanDump() {
  for (uint32_t vid = 1; vid < HXK_VLAN_VID_MAX; ++vid) {
    Entry e;
    if (getEntry(vid, e) == 0) printEntry(vid, e.mbrmsk, e.untagmsk, e.fid, e.ulfid, e.vbfwd);
  }
  return 0;
}

// ---- multicast lookup mode ---------------------------------------------------------------

const char *yesNo(uint32_t v) { return v == 1 ? "Yes" : "No"; }

kiv_int32 vlanMode(void **argv) {
  if (!is(nextWord(argv), "multicast")) return 0;
  const char *op = nextWord(argv);
  if (is(op, "get")) {
    uint32_t useFid = 0, fixEn = 0, fid = 0;
    reg_field_read(1, L2_MC_LOOKUP_CTRL, L2_MC_LOOKUP_CTRL_USE_FID_LSP, L2_MC_LOOKUP_CTRL_USE_FID_LEN, &useFid);
    reg_field_read(1, L2_MC_LOOKUP_CTRL, L2_MC_LOOKUP_CTRL_FIX_FID_EN_LSP, L2_MC_LOOKUP_CTRL_FIX_FID_EN_LEN, &fixEn);
    reg_field_read(1, L2_MC_LOOKUP_CTRL, L2_MC_LOOKUP_CTRL_FIX_FID_LSP, L2_MC_LOOKUP_CTRL_FIX_FID_LEN, &fid);
    printf("Look up table using FID    :%u(%s)\r\n", useFid, yesNo(useFid));
    printf("Look up table using Fix FID:%u(%s)\r\n", fixEn, yesNo(fixEn));
    printf("                    Fix FID:%u\r\n", fid);
    return 0;
  }
  if (is(op, "set")) {
    uint32_t useFid = nextNum(argv) & 0xFFu;
    uint32_t fixEn = nextNum(argv) & 0xFFu;
    const uint32_t fid = nextNum(argv) & 0xFFu;
    if (useFid > 1) useFid = 0;
    if (fixEn > 1) fixEn = 0;
    if (fid > kMcFidMax) {
      puts("Incorrect Multicast fid value.\r");
      return -1;
    }
    reg_field_write(1, L2_MC_LOOKUP_CTRL, L2_MC_LOOKUP_CTRL_USE_FID_LSP, L2_MC_LOOKUP_CTRL_USE_FID_LEN, useFid);
    reg_field_write(1, L2_MC_LOOKUP_CTRL, L2_MC_LOOKUP_CTRL_FIX_FID_EN_LSP, L2_MC_LOOKUP_CTRL_FIX_FID_EN_LEN, fixEn);
    reg_field_write(1, L2_MC_LOOKUP_CTRL, L2_MC_LOOKUP_CTRL_FIX_FID_LSP, L2_MC_LOOKUP_CTRL_FIX_FID_LEN, fid);
  }
  return 0;
}

// ---- default VLANs -----------------------------------------------------------------------

kiv_int32 vlanPvid(void **argv) {
  const uint32_t port = nextNum(argv) & 0xFFu;
  const char *tag = nextWord(argv);
  const bool outer = is(tag, "outer");
  if (!outer && !is(tag, "inner")) return 0;
  // Read first: a set keeps the priority (and the outer tag's DEI) already configured.
  uint32_t pvid = 0, pri = 0, dei = 0;
  if (outer)
    hxk_vlan_portOuterPvid_get(port, &pvid, &pri, &dei);
  else
    hxk_vlan_portPvid_get(port, &pvid, &pri);
  const char *op = nextWord(argv);
  if (is(op, "get")) {
    printf("Port %u PVID:%u\r\n", port, pvid);
    return 0;
  }
  if (is(op, "set")) {
    const uint32_t newPvid = nextNum(argv);
    const kiv_int32 ret = outer ? hxk_vlan_portOuterPvid_set(port, newPvid, pri, dei)
                                : hxk_vlan_portPvid_set(port, newPvid, pri);
    if (ret == kCmdVidError) {
      printf("Incorrect VID (%u)\r\n", newPvid);
      return -1;
    }
  }
  return 0;
}

// ---- filtering ---------------------------------------------------------------------------

// Port range of "<port>" or "all"; false (with the message) for a port above 7.
bool filterPorts(const Arg &a, uint32_t &first, uint32_t &last) {
  if (a.word != nullptr && is(a.word, "all")) {
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
  const char *op = nextWord(argv);
  uint32_t first = 0, last = 0;
  if (is(op, "set")) {
    if (!filterPorts(nextArg(argv), first, last)) return -1;
    const uint32_t enable = is(nextWord(argv), "enable") ? 1 : 0;
    for (uint32_t p = first; p <= last; ++p) hxk_vlan_portIgrFilterEn_set(p, enable);
    return 0;
  }
  if (is(op, "get")) {
    if (!filterPorts(nextArg(argv), first, last)) return -1;
    puts("port id\tIGFILTER\r");
    uint32_t enable = 0;
    for (uint32_t p = first; p <= last; ++p) {
      hxk_vlan_portIgrFilterEn_get(p, &enable);
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
  const char *what = nextWord(argv);
  if (is(what, "status")) {
    const Arg target = nextArg(argv);
    const uint32_t enable = is(nextWord(argv), "enable") ? 1 : 0;
    if (target.word != nullptr && is(target.word, "all")) {
      for (uint32_t p = 0; p <= HXK_VLAN_PORT_MAX; ++p)
        if (ops.statusSet(p, enable) != 0) return -1;
      return 0;
    }
    return ops.statusSet(target.num, enable) == 0 ? 0 : -1;
  }
  if (is(what, "entry")) {
    const uint32_t index = nextNum(argv);
    const uint32_t origVid = nextNum(argv);
    const uint32_t newVid = nextNum(argv);
    const uint32_t mask = nextNum(argv);
    const uint8_t valid = static_cast<uint8_t>(nextNum(argv));
    return ops.entrySet(index, origVid, newVid, mask, valid) == 0 ? 0 : -1;
  }
  return -1;
}

kiv_int32 retagGet(const RetagOps &ops, void **argv) {
  const char *what = nextWord(argv);
  const Arg target = nextArg(argv);
  const bool all = target.word != nullptr && is(target.word, "all");
  if (is(what, "status")) {
    const uint32_t first = all ? 0 : target.num, last = all ? HXK_VLAN_PORT_MAX : target.num;
    for (uint32_t p = first; p <= last; ++p) {
      uint32_t enable = 0;
      if (ops.statusGet(p, &enable) != 0) return -1;
      printf("Port %u: %s\n", p, enable ? "Enabled" : "Disabled");
    }
    return 0;
  }
  if (is(what, "entry")) {
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

kiv_int32 vlanRetag(const RetagOps &ops, void **argv) {
  const char *op = nextWord(argv);
  if (is(op, "init")) return retagInit(ops);
  if (is(op, "set")) return retagSet(ops, argv);
  if (is(op, "get")) return retagGet(ops, argv);
  return -1;
}

}  // namespace

kiv_int32 hx5200_cmd_vlan(kiv_uint32 /*uid*/, kiv_int32 /*argc*/, void **argv) {
  const char *cmd = nextWord(argv);
  if (is(cmd, "set")) return vlanSet(argv);
  if (is(cmd, "get")) return vlanGet(argv);
  if (is(cmd, "dump")) return vlanDump();
  if (is(cmd, "init")) {
    puts(hxk_vlan_init() == 0 ? "vlan init success !" : "vlan init failed !");
    return 0;
  }
  if (is(cmd, "mode")) return vlanMode(argv);
  if (is(cmd, "pvid")) return vlanPvid(argv);
  if (is(cmd, "igfilter") || is(cmd, "egfilter")) return vlanFilter(argv);
  if (is(cmd, "igretag")) return vlanRetag(kIgrRetag, argv);
  if (is(cmd, "egretag")) return vlanRetag(kEgrRetag, argv);
  return -1;
}
