#include "internal/common/hxk_vlan.h"

#include <array>

#include "access/access.h"
#include "internal/common/hx5200_regasicdrv.h"
#include "internal/common/hx5200_tblasicdrv.h"

namespace {

constexpr uint32_t field(uint32_t word, uint32_t lsp, uint32_t len) {
  return (word >> lsp) & ((1u << len) - 1u);
}
constexpr uint32_t place(uint32_t value, uint32_t lsp, uint32_t len) {
  return (value & ((1u << len) - 1u)) << lsp;
}

// One bit per port in a port-mask register.
int32_t portBitSet(uint32_t reg, uint32_t port, uint32_t enable) {
  if (port > HXK_VLAN_PORT_MAX) return HXK_ERR_PORT;
  if (enable > 1) return HXK_ERR_ENABLE;
  return reg_field_write(1, reg, port, 1, enable);
}

int32_t portBitGet(uint32_t reg, uint32_t port, uint32_t *enable) {
  if (port > HXK_VLAN_PORT_MAX) return HXK_ERR_PORT;
  if (enable == nullptr) return HXK_ERR_NULL_POINTER;
  return reg_field_read(1, reg, port, 1, enable);
}

int32_t portCtrlSet(uint32_t port, uint32_t lsp, uint32_t len, uint32_t value) {
  return reg_field_write(1, VLAN_PORT_CTRL + 4 * port, lsp, len, value);
}

int32_t portCtrlFlagSet(uint32_t port, uint32_t lsp, uint32_t enable) {
  if (port > HXK_VLAN_PORT_MAX) return HXK_ERR_PORT;
  if (enable > 1) return HXK_ERR_ENABLE;
  return portCtrlSet(port, lsp, 1, enable);
}

int32_t retagEntrySet(uint32_t table, uint32_t index, uint32_t origVid, uint32_t newVid, uint32_t portMask,
                      uint8_t valid) {
  if (index >= HXK_VLAN_RETAG_ENTRIES) return HXK_ERR_OUT_OF_RANGE;
  if (origVid > HXK_VLAN_VID_MAX || newVid > HXK_VLAN_VID_MAX) return HXK_ERR_VLAN_VID;
  if (portMask > 0xFFFFu) return HXK_ERR_PORT;
  if (valid > 1) return HXK_ERR_INPUT;
  std::array<uint32_t, RETAG_ENTRY_WORDS> w{};
  w[RETAG_ENTRY_VID_WORD] = place(origVid, RETAG_ENTRY_VID_ORIG_LSP, RETAG_ENTRY_VID_ORIG_LEN) |
                            place(newVid, RETAG_ENTRY_VID_NEW_LSP, RETAG_ENTRY_VID_NEW_LEN);
  w[RETAG_ENTRY_PORTMSK_WORD] = portMask;
  w[RETAG_ENTRY_VALID_WORD] = valid;
  return hx5200_tbl_entryWrite(table, index, w.data(), static_cast<uint32_t>(w.size()));
}

int32_t retagEntryGet(uint32_t table, uint32_t index, uint32_t *origVid, uint32_t *newVid, uint32_t *portMask,
                      uint8_t *valid) {
  if (index >= HXK_VLAN_RETAG_ENTRIES) return HXK_ERR_OUT_OF_RANGE;
  if (!origVid || !newVid || !portMask || !valid) return HXK_ERR_NULL_POINTER;
  std::array<uint32_t, RETAG_ENTRY_WORDS> w{};
  int32_t ret = hx5200_tbl_entryRead(table, index, w.data(), static_cast<uint32_t>(w.size()));
  if (ret != 0) return ret;
  *origVid = field(w[RETAG_ENTRY_VID_WORD], RETAG_ENTRY_VID_ORIG_LSP, RETAG_ENTRY_VID_ORIG_LEN);
  *newVid = field(w[RETAG_ENTRY_VID_WORD], RETAG_ENTRY_VID_NEW_LSP, RETAG_ENTRY_VID_NEW_LEN);
  *portMask = w[RETAG_ENTRY_PORTMSK_WORD];
  *valid = static_cast<uint8_t>(w[RETAG_ENTRY_VALID_WORD] & 1u);
  return HXK_OK;
}

int32_t retagInit(uint32_t table, uint32_t enableReg) {
  int32_t ret = hx5200_tbl_clear(table);
  if (ret != 0) return ret;
  return reg_write(1, enableReg, 0);
}

}  // namespace

// ---- VLAN table -------------------------------------------------------------------------

int32_t hxk_vlan_set(uint32_t vid, uint32_t mbrmsk, uint32_t untagmsk, uint32_t statefulmsk, uint32_t fid,
                     uint32_t ulfid, uint32_t vbfwd, uint8_t interface_id, uint8_t interface_valid) {
  if (vid > HXK_VLAN_VID_MAX) return HXK_ERR_VLAN_VID;
  if (fid > HXK_VLAN_FID_MAX) return HXK_ERR_VLAN_FID;
  if (ulfid > 1 || vbfwd > 1) return HXK_ERR_INPUT;
  // An entry without members and without untagged ports is a removed entry.
  const uint32_t valid = (mbrmsk == 0 && untagmsk == 0) ? 0 : 1;
  std::array<uint32_t, VLAN_ENTRY_WORDS> w{};
  w[VLAN_ENTRY_MBRMSK_WORD] = mbrmsk;
  w[VLAN_ENTRY_UNTAGMSK_WORD] = untagmsk;
  w[VLAN_ENTRY_STATEFULMSK_WORD] = statefulmsk;
  w[VLAN_ENTRY_CTRL_WORD] = place(fid, VLAN_ENTRY_CTRL_FID_LSP, VLAN_ENTRY_CTRL_FID_LEN) |
                            place(ulfid, VLAN_ENTRY_CTRL_ULFID_LSP, VLAN_ENTRY_CTRL_ULFID_LEN) |
                            place(vbfwd, VLAN_ENTRY_CTRL_VBFWD_LSP, VLAN_ENTRY_CTRL_VBFWD_LEN) |
                            place(valid, VLAN_ENTRY_CTRL_VALID_LSP, VLAN_ENTRY_CTRL_VALID_LEN);
  w[VLAN_ENTRY_INTF_WORD] = place(interface_id, VLAN_ENTRY_INTF_ID_LSP, VLAN_ENTRY_INTF_ID_LEN) |
                            place(interface_valid, VLAN_ENTRY_INTF_VALID_LSP, VLAN_ENTRY_INTF_VALID_LEN);
  return hx5200_tbl_entryWrite(HX5200_TBL_VLAN, vid, w.data(), static_cast<uint32_t>(w.size()));
}

int32_t hxk_vlan_get(uint32_t vid, uint32_t *mbrmsk, uint32_t *untagmsk, uint32_t *statefulmsk, uint8_t *fid,
                     uint8_t *ulfid, uint8_t *vbfwd, uint8_t *interface_id, uint8_t *interface_valid) {
  if (vid > HXK_VLAN_VID_MAX) return HXK_ERR_VLAN_VID;
  if (!mbrmsk || !untagmsk || !statefulmsk || !fid || !ulfid || !vbfwd || !interface_id || !interface_valid)
    return HXK_ERR_NULL_POINTER;
  int32_t ret = hx5200_tbl_load(HX5200_TBL_VLAN, vid);
  // The control word first: an entry that is not valid needs no further reads (a dump
  // walks all 4096 entries).
  uint32_t ctrl = 0;
  if (ret == 0) ret = hx5200_tbl_dataRead(VLAN_ENTRY_CTRL_WORD, &ctrl);
  if (ret != 0) return ret;
  if (field(ctrl, VLAN_ENTRY_CTRL_VALID_LSP, VLAN_ENTRY_CTRL_VALID_LEN) == 0) return HXK_ERR_VLAN_ENTRY_NOT_FOUND;
  uint32_t mbr = 0, untag = 0, stateful = 0, intf = 0;
  ret = hx5200_tbl_dataRead(VLAN_ENTRY_MBRMSK_WORD, &mbr);
  if (ret == 0) ret = hx5200_tbl_dataRead(VLAN_ENTRY_UNTAGMSK_WORD, &untag);
  if (ret == 0) ret = hx5200_tbl_dataRead(VLAN_ENTRY_STATEFULMSK_WORD, &stateful);
  if (ret == 0) ret = hx5200_tbl_dataRead(VLAN_ENTRY_INTF_WORD, &intf);
  if (ret != 0) return ret;
  *mbrmsk = mbr;
  *untagmsk = untag;
  *statefulmsk = stateful;
  *fid = static_cast<uint8_t>(field(ctrl, VLAN_ENTRY_CTRL_FID_LSP, VLAN_ENTRY_CTRL_FID_LEN));
  *ulfid = static_cast<uint8_t>(field(ctrl, VLAN_ENTRY_CTRL_ULFID_LSP, VLAN_ENTRY_CTRL_ULFID_LEN));
  *vbfwd = static_cast<uint8_t>(field(ctrl, VLAN_ENTRY_CTRL_VBFWD_LSP, VLAN_ENTRY_CTRL_VBFWD_LEN));
  *interface_id = static_cast<uint8_t>(field(intf, VLAN_ENTRY_INTF_ID_LSP, VLAN_ENTRY_INTF_ID_LEN));
  *interface_valid = static_cast<uint8_t>(field(intf, VLAN_ENTRY_INTF_VALID_LSP, VLAN_ENTRY_INTF_VALID_LEN));
  if (*ulfid > 1 || *vbfwd > 1) return HXK_ERR_FAILED;
  return HXK_OK;
}

int32_t hxk_vlan_init(void) {
  int32_t ret = hx5200_tbl_clear(HX5200_TBL_VLAN);
  if (ret != 0) return ret;
  ret = hxk_vlan_set(1, 0x7FFF, 0xFFFF, 0, 0, 1, 0, 0, 0);
  if (ret != 0) return ret;
  for (uint32_t port = 0; port <= HXK_VLAN_PORT_MAX; ++port) {
    ret = hxk_vlan_portIgrTagParse_set(port, 1);
    if (ret == 0) ret = hxk_vlan_portEgrTagKeep_set(port, 0);
    if (ret == 0) ret = hxk_vlan_portProtoVlan_set(port, 0, 0);
    if (ret == 0) ret = hxk_vlan_portPvid_set(port, 1, 0);
    if (ret == 0) ret = hxk_vlan_portIgrFilterEn_set(port, 1);
    if (ret != 0) return ret;
  }
  return HXK_OK;
}

// ---- default VLANs ----------------------------------------------------------------------

int32_t hxk_vlan_portPvid_set(uint32_t port, uint32_t pvid, uint32_t pri) {
  if (port > HXK_VLAN_PORT_MAX + 1) return HXK_ERR_PORT;   // the CPU port 16 may be set
  if (pvid == 0 || pvid > HXK_VLAN_VID_MAX) return HXK_ERR_VLAN_VID;
  if (pri > HXK_VLAN_PRI_MAX) return HXK_ERR_VLAN_PRIORITY;
  const uint32_t addr = VLAN_PORT_PVID + 4 * port;
  uint32_t v = 0;
  int32_t ret = reg_read(1, addr, &v);
  if (ret != 0) return ret;
  reg_field_set(1, addr, VLAN_PORT_PVID_VID_LSP, VLAN_PORT_PVID_VID_LEN, pvid, &v);
  reg_field_set(1, addr, VLAN_PORT_PVID_PRI_LSP, VLAN_PORT_PVID_PRI_LEN, pri, &v);
  return reg_write(1, addr, v);
}

int32_t hxk_vlan_portPvid_get(uint32_t port, uint32_t *pvid, uint32_t *pri) {
  if (port > HXK_VLAN_PORT_MAX) return HXK_ERR_PORT;
  if (pvid == nullptr || pri == nullptr) return HXK_ERR_NULL_POINTER;
  uint32_t v = 0;
  int32_t ret = reg_read(1, VLAN_PORT_PVID + 4 * port, &v);
  if (ret != 0) return ret;
  *pvid = field(v, VLAN_PORT_PVID_VID_LSP, VLAN_PORT_PVID_VID_LEN);
  *pri = field(v, VLAN_PORT_PVID_PRI_LSP, VLAN_PORT_PVID_PRI_LEN);
  return HXK_OK;
}

int32_t hxk_vlan_portOuterPvid_set(uint32_t port, uint32_t pvid, uint32_t pri, uint32_t dei) {
  if (port > HXK_VLAN_PORT_MAX) return HXK_ERR_PORT;
  if (pvid == 0 || pvid > HXK_VLAN_VID_MAX) return HXK_ERR_VLAN_VID;
  if (pri > HXK_VLAN_PRI_MAX) return HXK_ERR_VLAN_PRIORITY;
  if (dei > 1) return HXK_ERR_INPUT;
  const uint32_t v = place(pvid, VLAN_PORT_OPVID_VID_LSP, VLAN_PORT_OPVID_VID_LEN) |
                     place(pri, VLAN_PORT_OPVID_PRI_LSP, VLAN_PORT_OPVID_PRI_LEN) |
                     place(dei, VLAN_PORT_OPVID_DEI_LSP, VLAN_PORT_OPVID_DEI_LEN);
  return reg_write(1, VLAN_PORT_OPVID + 4 * port, v);
}

int32_t hxk_vlan_portOuterPvid_get(uint32_t port, uint32_t *pvid, uint32_t *pri, uint32_t *dei) {
  if (port > HXK_VLAN_PORT_MAX) return HXK_ERR_PORT;
  if (pvid == nullptr || pri == nullptr || dei == nullptr) return HXK_ERR_NULL_POINTER;
  uint32_t v = 0;
  int32_t ret = reg_read(1, VLAN_PORT_OPVID + 4 * port, &v);
  if (ret != 0) return ret;
  *pvid = field(v, VLAN_PORT_OPVID_VID_LSP, VLAN_PORT_OPVID_VID_LEN);
  *pri = field(v, VLAN_PORT_OPVID_PRI_LSP, VLAN_PORT_OPVID_PRI_LEN);
  *dei = field(v, VLAN_PORT_OPVID_DEI_LSP, VLAN_PORT_OPVID_DEI_LEN);
  return HXK_OK;
}

// ---- per-port VLAN handling -------------------------------------------------------------

int32_t hxk_vlan_portIgrTagParse_set(uint32_t port, uint32_t enable) {
  return portCtrlFlagSet(port, VLAN_PORT_CTRL_IGR_PARSE_LSP, enable);
}

int32_t hxk_vlan_portEgrTagKeep_set(uint32_t port, uint32_t enable) {
  return portCtrlFlagSet(port, VLAN_PORT_CTRL_EGR_KEEP_LSP, enable);
}

int32_t hxk_vlan_portProtoVlan_set(uint32_t port, uint32_t enable, uint32_t templateIdx) {
  if (port > HXK_VLAN_PORT_MAX) return HXK_ERR_PORT;
  if (enable > 1) return HXK_ERR_ENABLE;
  if (templateIdx >= (1u << VLAN_PORT_CTRL_PROTO_IDX_LEN)) return HXK_ERR_OUT_OF_RANGE;
  int32_t ret = portCtrlSet(port, VLAN_PORT_CTRL_PROTO_IDX_LSP, VLAN_PORT_CTRL_PROTO_IDX_LEN, templateIdx);
  if (ret != 0) return ret;
  return portCtrlSet(port, VLAN_PORT_CTRL_PROTO_EN_LSP, VLAN_PORT_CTRL_PROTO_EN_LEN, enable);
}

// ---- filtering --------------------------------------------------------------------------

int32_t hxk_vlan_portIgrFilterEn_set(uint32_t port, uint32_t enable) {
  return portBitSet(VLAN_IGR_FILTER_EN, port, enable);
}
int32_t hxk_vlan_portIgrFilterEn_get(uint32_t port, uint32_t *enable) {
  return portBitGet(VLAN_IGR_FILTER_EN, port, enable);
}
int32_t hxk_vlan_portEgrFilterEn_set(uint32_t port, uint32_t enable) {
  return portBitSet(VLAN_EGR_FILTER_EN, port, enable);
}
int32_t hxk_vlan_portEgrFilterEn_get(uint32_t port, uint32_t *enable) {
  return portBitGet(VLAN_EGR_FILTER_EN, port, enable);
}

// ---- retagging --------------------------------------------------------------------------

int32_t hxk_vlan_igrRetag_init(void) { return retagInit(HX5200_TBL_IGR_RETAG, VLAN_IGR_RETAG_EN); }
int32_t hxk_vlan_igrRetagStatus_set(uint32_t port, uint32_t enable) {
  return portBitSet(VLAN_IGR_RETAG_EN, port, enable);
}
int32_t hxk_vlan_igrRetagStatus_get(uint32_t port, uint32_t *enable) {
  return portBitGet(VLAN_IGR_RETAG_EN, port, enable);
}
int32_t hxk_vlan_igrRetagEntry_set(uint32_t index, uint32_t origVid, uint32_t newVid, uint32_t portMask,
                                   uint8_t valid) {
  return retagEntrySet(HX5200_TBL_IGR_RETAG, index, origVid, newVid, portMask, valid);
}
int32_t hxk_vlan_igrRetagEntry_get(uint32_t index, uint32_t *origVid, uint32_t *newVid, uint32_t *portMask,
                                   uint8_t *valid) {
  return retagEntryGet(HX5200_TBL_IGR_RETAG, index, origVid, newVid, portMask, valid);
}

int32_t hxk_vlan_egrRetag_init(void) { return retagInit(HX5200_TBL_EGR_RETAG, VLAN_EGR_RETAG_EN); }
int32_t hxk_vlan_egrRetagStatus_set(uint32_t port, uint32_t enable) {
  return portBitSet(VLAN_EGR_RETAG_EN, port, enable);
}
int32_t hxk_vlan_egrRetagStatus_get(uint32_t port, uint32_t *enable) {
  return portBitGet(VLAN_EGR_RETAG_EN, port, enable);
}
int32_t hxk_vlan_egrRetagEntry_set(uint32_t index, uint32_t origVid, uint32_t newVid, uint32_t portMask,
                                   uint8_t valid) {
  return retagEntrySet(HX5200_TBL_EGR_RETAG, index, origVid, newVid, portMask, valid);
}
int32_t hxk_vlan_egrRetagEntry_get(uint32_t index, uint32_t *origVid, uint32_t *newVid, uint32_t *portMask,
                                   uint8_t *valid) {
  return retagEntryGet(HX5200_TBL_EGR_RETAG, index, origVid, newVid, portMask, valid);
}
