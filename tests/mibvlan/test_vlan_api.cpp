// VLAN driver API against the simulated board: argument checks, result codes, round trips.
#include <array>

#include "internal/common/hx5200_regasicdrv.h"
#include "internal/common/hx5200_tblasicdrv.h"
#include "internal/common/hxk_vlan.h"
#include "mibvlan_board.h"

namespace {

struct Got {
  uint32_t mbr = 0xDEAD, untag = 0xDEAD, stateful = 0xDEAD;
  uint8_t fid = 0xEE, ulfid = 0xEE, vbfwd = 0xEE, ifId = 0xEE, ifValid = 0xEE;
  int32_t get(uint32_t vid) {
    return hxk_vlan_get(vid, &mbr, &untag, &stateful, &fid, &ulfid, &vbfwd, &ifId, &ifValid);
  }
};

using VlanApi = OnBoard;

TEST_F(VlanApi, SetGetRoundTripKeepsEveryField) {
  ASSERT_EQ(hxk_vlan_set(10, 0x3, 0x1, 0x80000001u, 14, 1, 1, 0x5A, 1), HXK_OK);
  Got g;
  ASSERT_EQ(g.get(10), HXK_OK);
  EXPECT_EQ(g.mbr, 0x3u);
  EXPECT_EQ(g.untag, 0x1u);
  EXPECT_EQ(g.stateful, 0x80000001u);
  EXPECT_EQ(g.fid, 14);
  EXPECT_EQ(g.ulfid, 1);
  EXPECT_EQ(g.vbfwd, 1);
  EXPECT_EQ(g.ifId, 0x5A);
  EXPECT_EQ(g.ifValid, 1);
  // The ends of the id range are ordinary entries; neighbours stay untouched.
  EXPECT_EQ(hxk_vlan_set(0, 1, 0, 0, 0, 0, 0, 0, 0), HXK_OK);
  EXPECT_EQ(hxk_vlan_set(4095, 0xFFFFFFFFu, 0, 0, 0, 0, 0, 0, 0), HXK_OK);
  ASSERT_EQ(g.get(4095), HXK_OK);
  EXPECT_EQ(g.mbr, 0xFFFFFFFFu);
  EXPECT_EQ(g.get(11), HXK_ERR_VLAN_ENTRY_NOT_FOUND);
}

TEST_F(VlanApi, SetChecksArgumentsInOrderAndWritesNothingOnRefusal) {
  EXPECT_EQ(hxk_vlan_set(4096, 3, 1, 0, 15, 2, 2, 0, 0), HXK_ERR_VLAN_VID);
  EXPECT_EQ(hxk_vlan_set(10, 3, 1, 0, 15, 2, 2, 0, 0), HXK_ERR_VLAN_FID);
  EXPECT_EQ(hxk_vlan_set(10, 3, 1, 0, 14, 2, 0, 0, 0), HXK_ERR_INPUT);
  EXPECT_EQ(hxk_vlan_set(10, 3, 1, 0, 14, 0, 2, 0, 0), HXK_ERR_INPUT);
  EXPECT_EQ(hxk_vlan_set(10, 3, 1, 0, 0x10E, 0, 0, 0, 0), HXK_ERR_VLAN_FID);   // no byte wrap
  Got g;
  EXPECT_EQ(g.get(10), HXK_ERR_VLAN_ENTRY_NOT_FOUND);
}

TEST_F(VlanApi, EntryWithoutMembersOrUntaggedPortsIsRemoved) {
  ASSERT_EQ(hxk_vlan_set(20, 3, 1, 0, 0, 0, 0, 0, 0), HXK_OK);
  ASSERT_EQ(hxk_vlan_set(20, 0, 0, 0, 0, 0, 0, 0, 0), HXK_OK);
  Got g;
  EXPECT_EQ(g.get(20), HXK_ERR_VLAN_ENTRY_NOT_FOUND);
  // One non-empty mask is enough to keep the entry.
  ASSERT_EQ(hxk_vlan_set(21, 0, 4, 0, 0, 0, 0, 0, 0), HXK_OK);
  EXPECT_EQ(g.get(21), HXK_OK);
  EXPECT_EQ(g.untag, 4u);
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

TEST_F(VlanApi, InitClearsTableAndSetsUpVlan1AndPorts) {
  ASSERT_EQ(hxk_vlan_set(5, 3, 1, 0, 0, 0, 0, 0, 0), HXK_OK);
  ASSERT_EQ(hxk_vlan_init(), HXK_OK);
  Got g;
  EXPECT_EQ(g.get(5), HXK_ERR_VLAN_ENTRY_NOT_FOUND);
  ASSERT_EQ(g.get(1), HXK_OK);
  EXPECT_EQ(g.mbr, 0x7FFFu);
  EXPECT_EQ(g.untag, 0xFFFFu);
  EXPECT_EQ(g.fid, 0);
  EXPECT_EQ(g.ulfid, 1);
  EXPECT_EQ(g.vbfwd, 0);
  for (uint32_t p = 0; p <= 15; ++p) {
    uint32_t pvid = 0, pri = 9, en = 0;
    ASSERT_EQ(hxk_vlan_portPvid_get(p, &pvid, &pri), HXK_OK);
    EXPECT_EQ(pvid, 1u) << p;
    EXPECT_EQ(pri, 0u) << p;
    ASSERT_EQ(hxk_vlan_portIgrFilterEn_get(p, &en), HXK_OK);
    EXPECT_EQ(en, 1u) << p;
    EXPECT_EQ(peek(VLAN_PORT_CTRL + 4 * p), 1u) << p;   // tag parsing on, the rest off
  }
}

TEST_F(VlanApi, InnerPvidChecksAndTheSetGetPortAsymmetry) {
  uint32_t pvid = 0, pri = 0;
  EXPECT_EQ(hxk_vlan_portPvid_set(17, 10, 0), HXK_ERR_PORT);
  EXPECT_EQ(hxk_vlan_portPvid_set(16, 10, 0), HXK_OK);
  EXPECT_EQ(hxk_vlan_portPvid_get(16, &pvid, &pri), HXK_ERR_PORT);
  EXPECT_EQ(hxk_vlan_portPvid_set(3, 0, 0), HXK_ERR_VLAN_VID);
  EXPECT_EQ(hxk_vlan_portPvid_set(3, 4096, 0), HXK_ERR_VLAN_VID);
  EXPECT_EQ(hxk_vlan_portPvid_set(3, 4095, 8), HXK_ERR_VLAN_PRIORITY);
  EXPECT_EQ(hxk_vlan_portPvid_get(3, nullptr, &pri), HXK_ERR_NULL_POINTER);
  ASSERT_EQ(hxk_vlan_portPvid_set(3, 4095, 7), HXK_OK);
  ASSERT_EQ(hxk_vlan_portPvid_get(3, &pvid, &pri), HXK_OK);
  EXPECT_EQ(pvid, 4095u);
  EXPECT_EQ(pri, 7u);
  ASSERT_EQ(hxk_vlan_portPvid_get(4, &pvid, &pri), HXK_OK);   // neighbour untouched
  EXPECT_EQ(pvid, 0u);
}

TEST_F(VlanApi, OuterPvidIsSeparateFromInner) {
  uint32_t pvid = 0, pri = 0, dei = 0;
  EXPECT_EQ(hxk_vlan_portOuterPvid_set(16, 10, 0, 0), HXK_ERR_PORT);
  EXPECT_EQ(hxk_vlan_portOuterPvid_get(16, &pvid, &pri, &dei), HXK_ERR_PORT);
  EXPECT_EQ(hxk_vlan_portOuterPvid_set(2, 0, 0, 0), HXK_ERR_VLAN_VID);
  EXPECT_EQ(hxk_vlan_portOuterPvid_set(2, 10, 8, 0), HXK_ERR_VLAN_PRIORITY);
  EXPECT_EQ(hxk_vlan_portOuterPvid_set(2, 10, 0, 2), HXK_ERR_INPUT);
  EXPECT_EQ(hxk_vlan_portOuterPvid_get(2, &pvid, nullptr, &dei), HXK_ERR_NULL_POINTER);
  ASSERT_EQ(hxk_vlan_portOuterPvid_set(2, 300, 5, 1), HXK_OK);
  ASSERT_EQ(hxk_vlan_portOuterPvid_get(2, &pvid, &pri, &dei), HXK_OK);
  EXPECT_EQ(pvid, 300u);
  EXPECT_EQ(pri, 5u);
  EXPECT_EQ(dei, 1u);
  ASSERT_EQ(hxk_vlan_portPvid_get(2, &pvid, &pri), HXK_OK);
  EXPECT_EQ(pvid, 0u);
}

TEST_F(VlanApi, FilterEnablesPerPortAndPerDirection) {
  uint32_t en = 0;
  EXPECT_EQ(hxk_vlan_portIgrFilterEn_set(16, 1), HXK_ERR_PORT);
  EXPECT_EQ(hxk_vlan_portIgrFilterEn_set(3, 2), HXK_ERR_ENABLE);
  EXPECT_EQ(hxk_vlan_portIgrFilterEn_get(16, &en), HXK_ERR_PORT);
  EXPECT_EQ(hxk_vlan_portIgrFilterEn_get(3, nullptr), HXK_ERR_NULL_POINTER);
  EXPECT_EQ(hxk_vlan_portEgrFilterEn_set(16, 1), HXK_ERR_PORT);
  EXPECT_EQ(hxk_vlan_portEgrFilterEn_set(3, 2), HXK_ERR_ENABLE);
  ASSERT_EQ(hxk_vlan_portIgrFilterEn_set(15, 1), HXK_OK);
  ASSERT_EQ(hxk_vlan_portEgrFilterEn_set(0, 1), HXK_OK);
  EXPECT_EQ(peek(VLAN_IGR_FILTER_EN), 0x8000u);
  EXPECT_EQ(peek(VLAN_EGR_FILTER_EN), 0x1u);
  ASSERT_EQ(hxk_vlan_portIgrFilterEn_set(15, 0), HXK_OK);
  ASSERT_EQ(hxk_vlan_portIgrFilterEn_get(15, &en), HXK_OK);
  EXPECT_EQ(en, 0u);
  ASSERT_EQ(hxk_vlan_portEgrFilterEn_get(0, &en), HXK_OK);
  EXPECT_EQ(en, 1u);
}

TEST_F(VlanApi, RetagEntriesChecksAndSeparateTables) {
  uint32_t o = 0, n = 0, m = 0;
  uint8_t v = 0;
  EXPECT_EQ(hxk_vlan_igrRetagEntry_set(32, 1, 2, 3, 1), HXK_ERR_OUT_OF_RANGE);
  EXPECT_EQ(hxk_vlan_igrRetagEntry_set(0, 4096, 2, 3, 1), HXK_ERR_VLAN_VID);
  EXPECT_EQ(hxk_vlan_igrRetagEntry_set(0, 1, 4096, 3, 1), HXK_ERR_VLAN_VID);
  EXPECT_EQ(hxk_vlan_igrRetagEntry_set(0, 1, 2, 0x10000, 1), HXK_ERR_PORT);
  EXPECT_EQ(hxk_vlan_egrRetagEntry_set(0, 1, 2, 3, 2), HXK_ERR_INPUT);
  EXPECT_EQ(hxk_vlan_egrRetagEntry_get(32, &o, &n, &m, &v), HXK_ERR_OUT_OF_RANGE);
  EXPECT_EQ(hxk_vlan_egrRetagEntry_get(0, &o, &n, nullptr, &v), HXK_ERR_NULL_POINTER);

  ASSERT_EQ(hxk_vlan_igrRetagEntry_set(31, 4095, 100, 0xFFFF, 1), HXK_OK);
  ASSERT_EQ(hxk_vlan_egrRetagEntry_set(31, 7, 8, 0x0F00, 0), HXK_OK);
  ASSERT_EQ(hxk_vlan_igrRetagEntry_get(31, &o, &n, &m, &v), HXK_OK);
  EXPECT_EQ(o, 4095u);
  EXPECT_EQ(n, 100u);
  EXPECT_EQ(m, 0xFFFFu);
  EXPECT_EQ(v, 1);
  ASSERT_EQ(hxk_vlan_egrRetagEntry_get(31, &o, &n, &m, &v), HXK_OK);
  EXPECT_EQ(o, 7u);
  EXPECT_EQ(n, 8u);
  EXPECT_EQ(m, 0x0F00u);
  EXPECT_EQ(v, 0);
}

TEST_F(VlanApi, RetagStatusAndInit) {
  uint32_t en = 0;
  EXPECT_EQ(hxk_vlan_igrRetagStatus_set(16, 1), HXK_ERR_PORT);
  EXPECT_EQ(hxk_vlan_egrRetagStatus_set(1, 2), HXK_ERR_ENABLE);
  EXPECT_EQ(hxk_vlan_egrRetagStatus_get(16, &en), HXK_ERR_PORT);
  ASSERT_EQ(hxk_vlan_igrRetagStatus_set(4, 1), HXK_OK);
  ASSERT_EQ(hxk_vlan_egrRetagStatus_set(11, 1), HXK_OK);
  ASSERT_EQ(hxk_vlan_igrRetagEntry_set(3, 1, 2, 3, 1), HXK_OK);
  ASSERT_EQ(hxk_vlan_igrRetagStatus_get(4, &en), HXK_OK);
  EXPECT_EQ(en, 1u);
  ASSERT_EQ(hxk_vlan_egrRetagStatus_get(4, &en), HXK_OK);
  EXPECT_EQ(en, 0u);

  ASSERT_EQ(hxk_vlan_igrRetag_init(), HXK_OK);
  EXPECT_EQ(peek(VLAN_IGR_RETAG_EN), 0u);
  EXPECT_EQ(peek(VLAN_EGR_RETAG_EN), 1u << 11);   // the other direction is untouched
  uint32_t o = 9, n = 9, m = 9;
  uint8_t v = 9;
  ASSERT_EQ(hxk_vlan_igrRetagEntry_get(3, &o, &n, &m, &v), HXK_OK);
  EXPECT_EQ(o + n + m + v, 0u);
}

TEST_F(VlanApi, TableDriverRefusesUnknownTablesAndIndexes) {
  std::array<uint32_t, 6> w{};
  EXPECT_EQ(hx5200_tbl_entryRead(9, 0, w.data(), 1), HX5200_TBL_ERR_TABLE);
  EXPECT_EQ(hx5200_tbl_entryRead(HX5200_TBL_IGR_RETAG, 32, w.data(), 1), HX5200_TBL_ERR_TABLE);
  EXPECT_EQ(hx5200_tbl_entryWrite(HX5200_TBL_VLAN, 0, w.data(), 6), HX5200_TBL_ERR_TABLE);   // 5 words
  EXPECT_EQ(hx5200_tbl_clear(0), HX5200_TBL_ERR_TABLE);
  // The board flags an operation it cannot run.
  poke(TBL_ACCESS_CTRL, 1u << 31 | 7u << 16);
  EXPECT_EQ(peek(TBL_ACCESS_CTRL) >> 30, 1u);
}

}  // namespace
