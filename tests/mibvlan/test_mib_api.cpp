// MIB driver against the simulated board: what a reset touches and the enables.
#include "internal/common/hx5200_regasicdrv.h"
#include "internal/common/hxk_mib.h"
#include "mibvlan_board.h"

namespace {

using MibApi = OnBoard;

constexpr uint32_t portCounter(uint32_t port, uint32_t i) { return MIB_PORT_BASE + port * MIB_PORT_STRIDE + 4 * i; }

TEST_F(MibApi, PortResetClearsThatPortAndWritesTheClearWordsUnscaled) {
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
}

TEST_F(MibApi, EnableSetsGlobalAndEveryPort) {
  poke(MIB_GLOBAL_CTRL, 0x100);
  ASSERT_EQ(hxk_mib_enable(), 0);
  EXPECT_EQ(peek(MIB_GLOBAL_CTRL), 0x103u);
  EXPECT_EQ(peek(MIB_GLOBAL_PORT_EN), 0xFFFFFFFFu);
  for (uint32_t p = 0; p < 16; ++p) EXPECT_EQ(peek(MIB_PORT_CTRL + p * MIB_PORT_STRIDE), 0x2u) << p;
}

}  // namespace
