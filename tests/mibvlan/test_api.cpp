// The MIB and VLAN drivers against a fresh simulated board reached in-process over the
// adapter's I2C side: what a reset touches, the enables, and the argument checks and result
// codes the commands depend on (round trips are left to the tool sessions).
#include <gtest/gtest.h>

#include <array>
#include <string>

#include "access/access.h"
#include "access/usbio.h"
#include "board.h"
#include "internal/common/hx5200_regasicdrv.h"
#include "internal/common/hx5200_tblasicdrv.h"
#include "internal/common/hxk_mib.h"
#include "internal/common/hxk_vlan.h"
#include "run_tool.h"
#include "sim/sim.h"
#include "sim/sim_chip.h"

namespace {

class OnBoard : public ::testing::Test {
 protected:
  void SetUp() override {
    board_attach(dir_);
    ASSERT_NE(usbio_handle, nullptr);
  }
  void TearDown() override { board_detach(); }
  // Board-side register access, bypassing the tool.
  static uint32_t peek(uint32_t addr) { return sim::chip_read(addr); }
  static void poke(uint32_t addr, uint32_t v) { sim::chip_write(addr, v); }

  const std::string dir_ = make_temp_dir("mibvlan");
};

using MibApi = OnBoard;
using VlanApi = OnBoard;

constexpr uint32_t portCounter(uint32_t port, uint32_t i) { return MIB_PORT_BASE + port * MIB_PORT_STRIDE + 4 * i; }

TEST_F(MibApi, PortResetWritesTheClearWordsUnscaledEnableSetsEveryPort) {
  for (uint32_t p : {2u, 3u, 4u}) poke(portCounter(p, 90), 200 + p);
  poke(MIB_PORT_CTRL + 3 * MIB_PORT_STRIDE, 0x2);   // counting enabled
  ASSERT_EQ(hxk_mib_portCounterReset(3), 0);
  EXPECT_EQ(peek(portCounter(3, 90)), 0u);
  EXPECT_EQ(peek(portCounter(2, 90)), 202u);
  EXPECT_EQ(peek(portCounter(4, 90)), 204u);
  EXPECT_EQ(peek(MIB_PORT_CTRL + 3 * MIB_PORT_STRIDE), 0x2u);   // reset bit gone, enable kept
  // The port number is added to the byte address of the clear words, not scaled.
  for (uint32_t reg : {MIB_PORT_CLR0, MIB_PORT_CLR1, MIB_PORT_CLR2}) EXPECT_EQ(peek(reg + 3), 0xFFFFFFFFu);
  EXPECT_EQ(peek(MIB_PORT_CLR0 + 3 * 4), 0u);
  EXPECT_EQ(hxk_mib_portCounterReset(16), HXK_MIB_ERR_PORT);
  EXPECT_EQ(hxk_mib_counterReset(0x10000, 1), HXK_MIB_ERR_MASK);
  // Enable: global bits and every port.
  poke(MIB_GLOBAL_CTRL, 0x100);
  ASSERT_EQ(hxk_mib_enable(), 0);
  EXPECT_EQ(peek(MIB_GLOBAL_CTRL), 0x103u);
  EXPECT_EQ(peek(MIB_GLOBAL_PORT_EN), 0xFFFFFFFFu);
  for (uint32_t p = 0; p < 16; ++p) EXPECT_EQ(peek(MIB_PORT_CTRL + p * MIB_PORT_STRIDE), 0x2u) << p;
}

struct Got {
  uint32_t mbr = 0xDEAD, untag = 0xDEAD, stateful = 0xDEAD;
  uint8_t fid = 0xEE, ulfid = 0xEE, vbfwd = 0xEE, ifId = 0xEE, ifValid = 0xEE;
  int32_t get(uint32_t vid) {
    return hxk_vlan_get(vid, &mbr, &untag, &stateful, &fid, &ulfid, &vbfwd, &ifId, &ifValid);
  }
};

TEST_F(VlanApi, ArgumentChecksInOrderInitAndThePortChecks) {
  EXPECT_EQ(hxk_vlan_set(4096, 3, 1, 0, 15, 2, 2, 0, 0), HXK_ERR_VLAN_VID);
  EXPECT_EQ(hxk_vlan_set(10, 3, 1, 0, 15, 2, 2, 0, 0), HXK_ERR_VLAN_FID);
  EXPECT_EQ(hxk_vlan_set(10, 3, 1, 0, 0x10E, 0, 0, 0, 0), HXK_ERR_VLAN_FID);   // no byte wrap
  EXPECT_EQ(hxk_vlan_set(10, 3, 1, 0, 14, 2, 0, 0, 0), HXK_ERR_INPUT);
  EXPECT_EQ(hxk_vlan_set(10, 3, 1, 0, 14, 0, 2, 0, 0), HXK_ERR_INPUT);
  Got g;
  EXPECT_EQ(g.get(10), HXK_ERR_VLAN_ENTRY_NOT_FOUND);   // nothing written on refusal
  // One non-empty mask keeps the entry valid (both empty remove it: see the tool session).
  ASSERT_EQ(hxk_vlan_set(21, 0, 4, 0, 0, 0, 0, 0, 0), HXK_OK);
  EXPECT_EQ(g.get(21), HXK_OK);

  EXPECT_EQ(g.get(4096), HXK_ERR_VLAN_VID);
  uint32_t m = 0;
  uint8_t b = 0;
  EXPECT_EQ(hxk_vlan_get(1, nullptr, &m, &m, &b, &b, &b, &b, &b), HXK_ERR_NULL_POINTER);
  EXPECT_EQ(hxk_vlan_get(1, &m, &m, &m, &b, &b, &b, &b, nullptr), HXK_ERR_NULL_POINTER);
  // A stored ulfid or vbfwd other than 0/1 is reported, the outputs are still filled.
  const std::array<uint32_t, 5> raw{7, 1, 0, 3u | 2u << 8 | 1u << 24, 0};
  ASSERT_EQ(hx5200_tbl_entryWrite(HX5200_TBL_VLAN, 30, raw.data(), 5), 0);
  EXPECT_EQ(g.get(30), HXK_ERR_FAILED);
  EXPECT_EQ(g.mbr, 7u);
  EXPECT_EQ(g.fid, 3);
  EXPECT_EQ(g.ulfid, 2);

  // Init sets up every port, then the port checks and the inner PVID set/get asymmetry.
  ASSERT_EQ(hxk_vlan_init(), HXK_OK);
  EXPECT_EQ(peek(VLAN_IGR_FILTER_EN), 0xFFFFu);
  for (uint32_t p = 0; p <= 15; ++p) {
    EXPECT_EQ(peek(VLAN_PORT_PVID + 4 * p), 1u) << p;   // PVID 1, priority 0
    EXPECT_EQ(peek(VLAN_PORT_CTRL + 4 * p), 1u) << p;   // tag parsing on, the rest off
  }
  // Port checks: set takes port 16, get does not.
  uint32_t pvid = 0, pri = 0, en = 0;
  EXPECT_EQ(hxk_vlan_portPvid_set(17, 10, 0), HXK_ERR_PORT);
  EXPECT_EQ(hxk_vlan_portPvid_set(16, 10, 0), HXK_OK);
  EXPECT_EQ(hxk_vlan_portPvid_get(16, &pvid, &pri), HXK_ERR_PORT);
  EXPECT_EQ(hxk_vlan_portPvid_set(3, 4096, 0), HXK_ERR_VLAN_VID);
  EXPECT_EQ(hxk_vlan_portPvid_set(3, 4095, 8), HXK_ERR_VLAN_PRIORITY);
  EXPECT_EQ(hxk_vlan_portPvid_get(3, nullptr, &pri), HXK_ERR_NULL_POINTER);
  ASSERT_EQ(hxk_vlan_portPvid_set(3, 4095, 7), HXK_OK);
  ASSERT_EQ(hxk_vlan_portPvid_get(3, &pvid, &pri), HXK_OK);
  EXPECT_EQ(pvid, 4095u);
  EXPECT_EQ(pri, 7u);
  EXPECT_EQ(hxk_vlan_portIgrFilterEn_set(16, 1), HXK_ERR_PORT);
  EXPECT_EQ(hxk_vlan_portIgrFilterEn_set(3, 2), HXK_ERR_ENABLE);
  EXPECT_EQ(hxk_vlan_portIgrFilterEn_get(16, &en), HXK_ERR_PORT);
}

}  // namespace
