// Register and field descriptions of the HX5200 used by the drivers and the commands: the
// one place for the chip's register addresses.
// Addresses are full chip addresses (page byte in bits 24..31); the transports carry
// the low 24 bits and the switch-core page (0x4A) selects the rest.
// Fields are described by their lowest bit (_LSP) and width (_LEN).
#pragma once

#include <cstdint>

// ---- indirect access ------------------------------------------------------------------
// Reaches a full chip address without touching the page register: the command word (the
// target address OR-ed with READ or WRITE) goes to CTRL, the value through DATA; CTRL
// shows DONE when the access has completed.
constexpr uint32_t INDIR_ACCESS_CTRL = 0xFFFF11u;
constexpr uint32_t INDIR_ACCESS_DATA = 0xFFFF15u;
constexpr uint32_t INDIR_ACCESS_READ = 0x3D000000u;
constexpr uint32_t INDIR_ACCESS_WRITE = 0x3F000000u;
constexpr uint32_t INDIR_ACCESS_DONE = 0x80000000u;

// ---- version registers -----------------------------------------------------------------
constexpr uint32_t SW_FW_VERSION = 0x4A1F0100u;
constexpr uint32_t SW_CHIP_VERSION = 0x4A1F0104u;

// ---- internal PHY access (MDC/MDIO master of the switch) ------------------------------
// CFG bit 9 selects the external access pins; CMD is the PHY access command word; AUX
// holds the channel PHY ID (bits 16..19) or the MMD address.
constexpr uint32_t PHY_ACCESS_CFG = 0x4A180048u;
constexpr uint32_t PHY_ACCESS_CFG_SEL_EXT_LSP = 9;
constexpr uint32_t PHY_ACCESS_CMD = 0x4A18004Cu;
constexpr uint32_t PHY_ACCESS_AUX = 0x4A180050u;

// ---- external-PHY (MDX) controller -----------------------------------------------------
// CFG: divisor bits 9..13, preamble code 2..3. PHY_ID: bits 0..4. CMD: start bit 0,
// register 8..12, data 16..31. PIN_CTRL bit 4 is cleared while the controller is in use.
constexpr uint32_t MDX_CFG = 0x4A450040u;
constexpr uint32_t MDX_PHY_ID = 0x4A450044u;
constexpr uint32_t MDX_CMD = 0x4A450048u;
constexpr uint32_t MDX_PIN_CTRL = 0x4A640008u;

// ---- MIB counters ----------------------------------------------------------------------
// Global MIB control: bits 0..1 counting enables, bit 16 global reset (self-clearing),
// bits 17..18 set after a full clear.
constexpr uint32_t MIB_GLOBAL_CTRL = 0x4A620000u;
constexpr uint32_t MIB_GLOBAL_CTRL_EN_LSP = 0;
constexpr uint32_t MIB_GLOBAL_CTRL_EN_LEN = 2;
constexpr uint32_t MIB_GLOBAL_RESET = 0x4A620004u;
constexpr uint32_t MIB_GLOBAL_RESET_SYS_LSP = 16;
constexpr uint32_t MIB_GLOBAL_RESET_SYS_LEN = 1;
constexpr uint32_t MIB_GLOBAL_RESET_DONE_LSP = 17;
constexpr uint32_t MIB_GLOBAL_RESET_DONE_LEN = 2;
constexpr uint32_t MIB_GLOBAL_PORT_EN = 0x4A620008u;
// Aggregation/routing counter reset: bit 0 (self-clearing).
constexpr uint32_t MIB_GLOBAL_RESET2 = 0x4A620020u;
constexpr uint32_t MIB_GLOBAL_RESET2_AGG_LSP = 0;
constexpr uint32_t MIB_GLOBAL_RESET2_AGG_LEN = 1;

// Link-aggregation counters: group g, counter i at base + g * 16 + 4 * i.
constexpr uint32_t MIB_LAG_BASE = 0x4A620064u;
constexpr uint32_t MIB_LAG_GROUP_STRIDE = 16;
constexpr uint32_t MIB_LAG_COUNTERS = 16;
// System counters: counter i at base + 4 * i.
constexpr uint32_t MIB_SYS_BASE = 0x4A620264u;
constexpr uint32_t MIB_SYS_COUNTERS = 49;

// Port counters: port p, counter i at base + p * 0x800 + 4 * i.
constexpr uint32_t MIB_PORT_BASE = 0x4AE20000u;
constexpr uint32_t MIB_PORT_STRIDE = 0x800u;
constexpr uint32_t MIB_PORT_SHIFT = 11;
constexpr uint32_t MIB_PORT_COUNTERS = 91;
constexpr uint32_t MIB_PORTS = 16;
// Routing counters: routing port r, counter i at base + r * 16 + 4 * i.
constexpr uint32_t MIB_ROUTE_BASE = 0x4AE20130u;
constexpr uint32_t MIB_ROUTE_STRIDE = 16;
constexpr uint32_t MIB_ROUTE_COUNTERS = 5;
// Counter-clear words written after a port reset (port number added to the byte address).
constexpr uint32_t MIB_PORT_CLR0 = 0x4AE2016Cu;
constexpr uint32_t MIB_PORT_CLR1 = 0x4AE20170u;
constexpr uint32_t MIB_PORT_CLR2 = 0x4AE20174u;
// Per-port MIB control (+ p * 0x800): bit 0 reset (self-clearing), bit 1 counting enable.
constexpr uint32_t MIB_PORT_CTRL = 0x4AE20184u;
constexpr uint32_t MIB_PORT_CTRL_RST_LSP = 0;
constexpr uint32_t MIB_PORT_CTRL_RST_LEN = 1;
constexpr uint32_t MIB_PORT_CTRL_EN_LSP = 1;
constexpr uint32_t MIB_PORT_CTRL_EN_LEN = 1;

// ---- PHY OCP space ---------------------------------------------------------------------
// OCP address a is reached as chip address 2a. The link word of port p sits at OCP
// address (p + 1) * 0x10000 + 0xA402; bit 2 is link up.
constexpr uint32_t OCP_PORT_LINK_BASE = 0x10000u;
constexpr uint32_t OCP_PORT_LINK_OFFSET = 0xA402u;
constexpr uint32_t OCP_PORT_LINK_UP_LSP = 2;
constexpr uint32_t OCP_PORT_LINK_UP_LEN = 1;
constexpr uint32_t OCP_WAKE_STATUS = 0xB10u;   // remote-wake test: reads 0x30 when ready
constexpr uint32_t OCP_WAKE_CTRL = 0x900u;
constexpr uint32_t OCP_WAKE_PORT_BASE = 0x490u;

// ---- multicast lookup mode -------------------------------------------------------------
constexpr uint32_t L2_MC_LOOKUP_CTRL = 0x4A4B0000u;
constexpr uint32_t L2_MC_LOOKUP_CTRL_USE_FID_LSP = 17;
constexpr uint32_t L2_MC_LOOKUP_CTRL_USE_FID_LEN = 1;
constexpr uint32_t L2_MC_LOOKUP_CTRL_FIX_FID_EN_LSP = 18;
constexpr uint32_t L2_MC_LOOKUP_CTRL_FIX_FID_EN_LEN = 1;
constexpr uint32_t L2_MC_LOOKUP_CTRL_FIX_FID_LSP = 20;
constexpr uint32_t L2_MC_LOOKUP_CTRL_FIX_FID_LEN = 12;

// ---- table access unit (project-defined layout, see docs/board.md) ------------
// Control word: index, table id, operation, error flag, start/busy.
constexpr uint32_t TBL_ACCESS_CTRL = 0x4A300000u;
constexpr uint32_t TBL_ACCESS_CTRL_INDEX_LSP = 0;
constexpr uint32_t TBL_ACCESS_CTRL_INDEX_LEN = 12;
constexpr uint32_t TBL_ACCESS_CTRL_TABLE_LSP = 16;
constexpr uint32_t TBL_ACCESS_CTRL_TABLE_LEN = 4;
constexpr uint32_t TBL_ACCESS_CTRL_OP_LSP = 24;
constexpr uint32_t TBL_ACCESS_CTRL_OP_LEN = 2;
constexpr uint32_t TBL_ACCESS_CTRL_ERR_LSP = 30;
constexpr uint32_t TBL_ACCESS_CTRL_START_LSP = 31;
constexpr uint32_t TBL_ACCESS_OP_READ = 0;
constexpr uint32_t TBL_ACCESS_OP_WRITE = 1;
constexpr uint32_t TBL_ACCESS_OP_CLEAR = 2;
// Entry data words 0..5.
constexpr uint32_t TBL_ACCESS_DATA0 = 0x4A300004u;
constexpr uint32_t TBL_ACCESS_DATA_WORDS = 6;

// VLAN table entry (table 1, 4096 entries).
constexpr uint32_t VLAN_ENTRY_MBRMSK_WORD = 0;
constexpr uint32_t VLAN_ENTRY_UNTAGMSK_WORD = 1;
constexpr uint32_t VLAN_ENTRY_STATEFULMSK_WORD = 2;
constexpr uint32_t VLAN_ENTRY_CTRL_WORD = 3;
constexpr uint32_t VLAN_ENTRY_CTRL_FID_LSP = 0;
constexpr uint32_t VLAN_ENTRY_CTRL_FID_LEN = 8;
constexpr uint32_t VLAN_ENTRY_CTRL_ULFID_LSP = 8;
constexpr uint32_t VLAN_ENTRY_CTRL_ULFID_LEN = 8;
constexpr uint32_t VLAN_ENTRY_CTRL_VBFWD_LSP = 16;
constexpr uint32_t VLAN_ENTRY_CTRL_VBFWD_LEN = 8;
constexpr uint32_t VLAN_ENTRY_CTRL_VALID_LSP = 24;
constexpr uint32_t VLAN_ENTRY_CTRL_VALID_LEN = 8;
constexpr uint32_t VLAN_ENTRY_INTF_WORD = 4;
constexpr uint32_t VLAN_ENTRY_INTF_ID_LSP = 0;
constexpr uint32_t VLAN_ENTRY_INTF_ID_LEN = 8;
constexpr uint32_t VLAN_ENTRY_INTF_VALID_LSP = 8;
constexpr uint32_t VLAN_ENTRY_INTF_VALID_LEN = 8;
constexpr uint32_t VLAN_ENTRY_WORDS = 5;

// Retagging entry (tables 2 and 3, 32 entries each).
constexpr uint32_t RETAG_ENTRY_VID_WORD = 0;
constexpr uint32_t RETAG_ENTRY_VID_ORIG_LSP = 0;
constexpr uint32_t RETAG_ENTRY_VID_ORIG_LEN = 12;
constexpr uint32_t RETAG_ENTRY_VID_NEW_LSP = 16;
constexpr uint32_t RETAG_ENTRY_VID_NEW_LEN = 12;
constexpr uint32_t RETAG_ENTRY_PORTMSK_WORD = 1;
constexpr uint32_t RETAG_ENTRY_VALID_WORD = 2;
constexpr uint32_t RETAG_ENTRY_WORDS = 3;

// ---- per-port VLAN registers (project-defined) -----------------------------------------
// Inner-tag default VLAN, ports 0..16: bits 0..11 PVID, bits 12..14 priority.
constexpr uint32_t VLAN_PORT_PVID = 0x4A300100u;
constexpr uint32_t VLAN_PORT_PVID_VID_LSP = 0;
constexpr uint32_t VLAN_PORT_PVID_VID_LEN = 12;
constexpr uint32_t VLAN_PORT_PVID_PRI_LSP = 12;
constexpr uint32_t VLAN_PORT_PVID_PRI_LEN = 3;
// Outer-tag default VLAN, ports 0..15: bits 0..11 PVID, 12..14 priority, 15 DEI.
constexpr uint32_t VLAN_PORT_OPVID = 0x4A300180u;
constexpr uint32_t VLAN_PORT_OPVID_VID_LSP = 0;
constexpr uint32_t VLAN_PORT_OPVID_VID_LEN = 12;
constexpr uint32_t VLAN_PORT_OPVID_PRI_LSP = 12;
constexpr uint32_t VLAN_PORT_OPVID_PRI_LEN = 3;
constexpr uint32_t VLAN_PORT_OPVID_DEI_LSP = 15;
constexpr uint32_t VLAN_PORT_OPVID_DEI_LEN = 1;
// Per-port VLAN control, ports 0..15: bit 0 parse the tag on ingress, bit 1 keep the
// original tag on egress, bit 4 protocol-VLAN enable, bits 5..7 protocol template.
constexpr uint32_t VLAN_PORT_CTRL = 0x4A300200u;
constexpr uint32_t VLAN_PORT_CTRL_IGR_PARSE_LSP = 0;
constexpr uint32_t VLAN_PORT_CTRL_IGR_PARSE_LEN = 1;
constexpr uint32_t VLAN_PORT_CTRL_EGR_KEEP_LSP = 1;
constexpr uint32_t VLAN_PORT_CTRL_EGR_KEEP_LEN = 1;
constexpr uint32_t VLAN_PORT_CTRL_PROTO_EN_LSP = 4;
constexpr uint32_t VLAN_PORT_CTRL_PROTO_EN_LEN = 1;
constexpr uint32_t VLAN_PORT_CTRL_PROTO_IDX_LSP = 5;
constexpr uint32_t VLAN_PORT_CTRL_PROTO_IDX_LEN = 3;
// Port masks, bit p = port p.
constexpr uint32_t VLAN_IGR_FILTER_EN = 0x4A300300u;
constexpr uint32_t VLAN_EGR_FILTER_EN = 0x4A300304u;
constexpr uint32_t VLAN_IGR_RETAG_EN = 0x4A300308u;
constexpr uint32_t VLAN_EGR_RETAG_EN = 0x4A30030Cu;
