// VLAN driver API against the simulated board: the argument checks and result codes the
// `vlan` command depends on.
#include "internal/common/hx5200_regasicdrv.h"
#include "internal/common/hx5200_tblasicdrv.h"
#include "internal/common/hxk_vlan.h"
#include "mibvlan_board.h"

#include <array>

namespace {

struct Got {
  uint32_t mbr = 0xDEAD, untag = 0xDEAD, stateful = 0xDEAD;
  uint8_t fid = 0xEE, ulfid = 0xEE, vbfwd = 0xEE, ifId = 0xEE, ifValid = 0xEE;
  int32_t get(uint32_t vid) {
    return hxk_vlan_get(vid, &mbr, &untag, &stateful, &fid, &ulfid, &vbfwd, &ifId, &ifValid);
  }
};

using VlanApi = OnBoard;

TEST_F(VlanApi, SetChecksInOrderAndAnEmptyEntryIsRemoved) {
  EXPECT_EQ(hxk_vlan_set(4096, 3, 1, 0, 15, 2, 2, 0, 0), HXK_ERR_VLAN_VID);
  EXPECT_EQ(hxk_vlan_set(10, 3, 1, 0, 15, 2, 2, 0, 0), HXK_ERR_VLAN_FID);
  EXPECT_EQ(hxk_vlan_set(10, 3, 1, 0, 0x10E, 0, 0, 0, 0), HXK_ERR_VLAN_FID);   // no byte wrap
  EXPECT_EQ(hxk_vlan_set(10, 3, 1, 0, 14, 2, 0, 0, 0), HXK_ERR_INPUT);
  EXPECT_EQ(hxk_vlan_set(10, 3, 1, 0, 14, 0, 2, 0, 0), HXK_ERR_INPUT);
  Got g;
  EXPECT_EQ(g.get(10), HXK_ERR_VLAN_ENTRY_NOT_FOUND);   // nothing written on refusal
  // Valid unless both masks are 0: one non-empty mask keeps the entry.
  ASSERT_EQ(hxk_vlan_set(21, 0, 4, 0, 0, 0, 0, 0, 0), HXK_OK);
  EXPECT_EQ(g.get(21), HXK_OK);
  ASSERT_EQ(hxk_vlan_set(21, 0, 0, 0, 0, 0, 0, 0, 0), HXK_OK);
  EXPECT_EQ(g.get(21), HXK_ERR_VLAN_ENTRY_NOT_FOUND);
}

TEST_F(VlanApi, GetChecksIdPointersAndStoredFlags) {
  Got g;
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
}

TEST_F(VlanApi, InitSetsUpEveryPort) {
  ASSERT_EQ(hxk_vlan_init(), HXK_OK);
  EXPECT_EQ(peek(VLAN_IGR_FILTER_EN), 0xFFFFu);
  for (uint32_t p = 0; p <= 15; ++p) {
    EXPECT_EQ(peek(VLAN_PORT_PVID + 4 * p), 1u) << p;   // PVID 1, priority 0
    EXPECT_EQ(peek(VLAN_PORT_CTRL + 4 * p), 1u) << p;   // tag parsing on, the rest off
  }
}

TEST_F(VlanApi, PortChecksAndTheInnerPvidSetGetAsymmetry) {
  uint32_t pvid = 0, pri = 0;
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
  uint32_t en = 0;
  EXPECT_EQ(hxk_vlan_portIgrFilterEn_set(16, 1), HXK_ERR_PORT);
  EXPECT_EQ(hxk_vlan_portIgrFilterEn_set(3, 2), HXK_ERR_ENABLE);
  EXPECT_EQ(hxk_vlan_portIgrFilterEn_get(16, &en), HXK_ERR_PORT);
}

}  // namespace
