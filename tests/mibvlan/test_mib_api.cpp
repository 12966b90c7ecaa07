// MIB driver and the board's MIB unit: counter addressing, resets, link words.
#include "internal/common/hx5200_regasicdrv.h"
#include "internal/common/hxk_mib.h"
#include "mibvlan_board.h"

namespace {

using MibApi = OnBoard;

constexpr uint32_t portCounter(uint32_t port, uint32_t i) { return MIB_PORT_BASE + port * MIB_PORT_STRIDE + 4 * i; }

TEST_F(MibApi, CounterIndexSelectsSystemOrPortBlock) {
  poke(MIB_SYS_BASE, 11);
  poke(MIB_SYS_BASE + 4 * 48, 12);
  poke(portCounter(5, 0), 21);
  poke(portCounter(15, 90), 22);
  uint32_t v = 0;
  ASSERT_EQ(hxk_mib_counterRead(0, 7, &v), 0);   // the port is ignored for system counters
  EXPECT_EQ(v, 11u);
  ASSERT_EQ(hxk_mib_counterRead(48, 0, &v), 0);
  EXPECT_EQ(v, 12u);
  ASSERT_EQ(hxk_mib_counterRead(1000, 5, &v), 0);
  EXPECT_EQ(v, 21u);
  ASSERT_EQ(hxk_mib_counterRead(1090, 15, &v), 0);
  EXPECT_EQ(v, 22u);
  EXPECT_EQ(hxk_mib_counterRead(0, 0, nullptr), -8);
}

TEST_F(MibApi, PortResetClearsOnlyThatPortAndSelfClears) {
  for (uint32_t p : {2u, 3u, 4u}) {
    poke(portCounter(p, 0), 100 + p);
    poke(portCounter(p, 90), 200 + p);
  }
  poke(MIB_SYS_BASE, 5);
  poke(MIB_PORT_CTRL + 3 * MIB_PORT_STRIDE, 0x2);   // counting enabled
  ASSERT_EQ(hxk_mib_portCounterReset(3), 0);
  EXPECT_EQ(peek(portCounter(3, 0)), 0u);
  EXPECT_EQ(peek(portCounter(3, 90)), 0u);
  EXPECT_EQ(peek(portCounter(2, 0)), 102u);
  EXPECT_EQ(peek(portCounter(4, 90)), 204u);
  EXPECT_EQ(peek(MIB_SYS_BASE), 5u);
  EXPECT_EQ(peek(MIB_PORT_CTRL + 3 * MIB_PORT_STRIDE), 0x2u);   // reset bit gone, enable kept
  // The clear words take the port number unscaled on the byte address.
  EXPECT_EQ(peek(MIB_PORT_CLR0 + 3), 0xFFFFFFFFu);
  EXPECT_EQ(peek(MIB_PORT_CLR1 + 3), 0xFFFFFFFFu);
  EXPECT_EQ(peek(MIB_PORT_CLR2 + 3), 0xFFFFFFFFu);
  EXPECT_EQ(peek(MIB_PORT_CLR0 + 3 * 4), 0u);
}

TEST_F(MibApi, ResetRefusesBadPortsAndMasks) {
  poke(portCounter(0, 1), 9);
  EXPECT_EQ(hxk_mib_portCounterReset(16), HXK_MIB_ERR_PORT);
  EXPECT_EQ(hxk_mib_counterReset(0x10000, 1), HXK_MIB_ERR_MASK);
  EXPECT_EQ(peek(portCounter(0, 1)), 9u);
}

TEST_F(MibApi, GlobalResetClearsSystemAndAggregationCounters) {
  poke(MIB_SYS_BASE + 4 * 10, 1);
  poke(MIB_LAG_BASE + 4 * 3, 2);
  poke(portCounter(1, 1), 3);
  ASSERT_EQ(hxk_mib_counterReset(0, 1), 0);
  EXPECT_EQ(peek(MIB_SYS_BASE + 4 * 10), 0u);
  EXPECT_EQ(peek(MIB_LAG_BASE + 4 * 3), 0u);
  EXPECT_EQ(peek(portCounter(1, 1)), 3u);
  EXPECT_EQ(peek(MIB_GLOBAL_RESET) & (1u << 16), 0u);
  EXPECT_EQ(peek(MIB_GLOBAL_RESET2) & 1u, 0u);
}

TEST_F(MibApi, EnableSetsGlobalAndEveryPort) {
  poke(MIB_GLOBAL_CTRL, 0x100);
  ASSERT_EQ(hxk_mib_enable(), 0);
  EXPECT_EQ(peek(MIB_GLOBAL_CTRL), 0x103u);
  EXPECT_EQ(peek(MIB_GLOBAL_PORT_EN), 0xFFFFFFFFu);
  for (uint32_t p = 0; p < 16; ++p) EXPECT_EQ(peek(MIB_PORT_CTRL + p * MIB_PORT_STRIDE), 0x2u) << p;
}

TEST_F(MibApi, LinkWordsUpAtResetAndTakenDownByWriteOrKnob) {
  uint32_t v = 0;
  EXPECT_EQ(hx5200_port_linkWordGet(8, &v), -1);
  for (uint32_t p = 0; p <= 7; ++p) {
    ASSERT_EQ(hx5200_port_linkWordGet(p, &v), 0);
    EXPECT_EQ(v & 4u, 4u) << p;
  }
  // OCP address a is chip address 2a.
  ASSERT_EQ(hx5200_ocp_write(4 * 0x10000 + 0xA402, 0), 0);
  EXPECT_EQ(peek(0x4A000000u | 2 * (4 * 0x10000 + 0xA402)), 0u);
  ASSERT_EQ(hx5200_port_linkWordGet(3, &v), 0);
  EXPECT_EQ(v, 0u);
  ASSERT_EQ(hx5200_port_linkWordGet(2, &v), 0);
  EXPECT_EQ(v, 4u);
  ScopedEnv down("KIVTOOL_SIM_LINKDOWN", "0x4");
  ASSERT_EQ(hx5200_port_linkWordGet(2, &v), 0);
  EXPECT_EQ(v, 0u);
}

}  // namespace
