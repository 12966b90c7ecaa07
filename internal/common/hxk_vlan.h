// Switch driver API: VLAN table, default VLANs, VLAN filtering and VLAN retagging.
#pragma once

#include <cstdint>

// Result codes.
constexpr int32_t HXK_OK = 0;
constexpr int32_t HXK_ERR_FAILED = -1;                 // a stored flag is neither 0 nor 1
constexpr int32_t HXK_ERR_INPUT = -2;                  // a 0/1 flag argument out of range
constexpr int32_t HXK_ERR_OUT_OF_RANGE = -3;           // table index out of range
constexpr int32_t HXK_ERR_PORT = -4;                   // bad port or port mask
constexpr int32_t HXK_ERR_NULL_POINTER = -8;
constexpr int32_t HXK_ERR_ENABLE = -22;                // bad enable value
constexpr int32_t HXK_ERR_VLAN_VID = static_cast<int32_t>(0xFFFF0000u);
constexpr int32_t HXK_ERR_VLAN_PRIORITY = static_cast<int32_t>(0xFFFEFFFFu);
constexpr int32_t HXK_ERR_VLAN_FID = static_cast<int32_t>(0xFFF9FFF9u);
constexpr int32_t HXK_ERR_VLAN_ENTRY_NOT_FOUND = static_cast<int32_t>(0xFFFEFFFBu);

constexpr uint32_t HXK_VLAN_VID_MAX = 4095;
constexpr uint32_t HXK_VLAN_FID_MAX = 14;
constexpr uint32_t HXK_VLAN_PRI_MAX = 7;
constexpr uint32_t HXK_VLAN_PORT_MAX = 15;      // ports 0..15
constexpr uint32_t HXK_VLAN_RETAG_ENTRIES = 32;

// VLAN table entry of one VLAN id.
int32_t hxk_vlan_set(uint32_t vid, uint32_t mbrmsk, uint32_t untagmsk, uint32_t statefulmsk, uint32_t fid,
                     uint32_t ulfid, uint32_t vbfwd, uint8_t interface_id, uint8_t interface_valid);
int32_t hxk_vlan_get(uint32_t vid, uint32_t *mbrmsk, uint32_t *untagmsk, uint32_t *statefulmsk, uint8_t *fid,
                     uint8_t *ulfid, uint8_t *vbfwd, uint8_t *interface_id, uint8_t *interface_valid);
// Clear the table, install VLAN 1 with every port and set up ports 0..15 for it.
int32_t hxk_vlan_init(void);

// Inner-tag default VLAN and priority. The setter takes ports 0..16, the getter 0..15.
int32_t hxk_vlan_portPvid_set(uint32_t port, uint32_t pvid, uint32_t pri);
int32_t hxk_vlan_portPvid_get(uint32_t port, uint32_t *pvid, uint32_t *pri);
// Outer-tag default VLAN, priority and DEI (ports 0..15).
int32_t hxk_vlan_portOuterPvid_set(uint32_t port, uint32_t pvid, uint32_t pri, uint32_t dei);
int32_t hxk_vlan_portOuterPvid_get(uint32_t port, uint32_t *pvid, uint32_t *pri, uint32_t *dei);

// Per-port VLAN handling set up by hxk_vlan_init.
int32_t hxk_vlan_portIgrTagParse_set(uint32_t port, uint32_t enable);
int32_t hxk_vlan_portEgrTagKeep_set(uint32_t port, uint32_t enable);
int32_t hxk_vlan_portProtoVlan_set(uint32_t port, uint32_t enable, uint32_t templateIdx);

// Ingress and egress VLAN filtering.
int32_t hxk_vlan_portIgrFilterEn_set(uint32_t port, uint32_t enable);
int32_t hxk_vlan_portIgrFilterEn_get(uint32_t port, uint32_t *enable);
int32_t hxk_vlan_portEgrFilterEn_set(uint32_t port, uint32_t enable);
int32_t hxk_vlan_portEgrFilterEn_get(uint32_t port, uint32_t *enable);

// VLAN retagging, ingress and egress tables of 32 entries each.
int32_t hxk_vlan_igrRetag_init(void);
int32_t hxk_vlan_igrRetagStatus_set(uint32_t port, uint32_t enable);
int32_t hxk_vlan_igrRetagStatus_get(uint32_t port, uint32_t *enable);
int32_t hxk_vlan_igrRetagEntry_set(uint32_t index, uint32_t origVid, uint32_t newVid, uint32_t portMask,
                                   uint8_t valid);
int32_t hxk_vlan_igrRetagEntry_get(uint32_t index, uint32_t *origVid, uint32_t *newVid, uint32_t *portMask,
                                   uint8_t *valid);
int32_t hxk_vlan_egrRetag_init(void);
int32_t hxk_vlan_egrRetagStatus_set(uint32_t port, uint32_t enable);
int32_t hxk_vlan_egrRetagStatus_get(uint32_t port, uint32_t *enable);
int32_t hxk_vlan_egrRetagEntry_set(uint32_t index, uint32_t origVid, uint32_t newVid, uint32_t portMask,
                                   uint8_t valid);
int32_t hxk_vlan_egrRetagEntry_get(uint32_t index, uint32_t *origVid, uint32_t *newVid, uint32_t *portMask,
                                   uint8_t *valid);
