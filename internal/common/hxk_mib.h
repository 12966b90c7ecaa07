// Switch driver API: MIB counters, and the PHY OCP access the port monitors use.
#pragma once

#include <cstdint>

constexpr int32_t HXK_MIB_ERR_PORT = -4;    // port out of range in a single-port reset
constexpr int32_t HXK_MIB_ERR_MASK = -5;    // port mask wider than the 16 ports
constexpr uint32_t HXK_MIB_SYS_INDEX_MAX = 189;
constexpr uint32_t HXK_MIB_PORT_INDEX_BASE = 1000;
constexpr uint32_t HXK_MIB_RESET_POLLS = 256;

// Counting on: global enables, every port enabled.
int32_t hxk_mib_enable(void);
// Counter `index` of `port`: indexes 0..189 are system counters (port ignored), indexes
// from 1000 on are port counters (index - 1000). The value is written only on success.
int32_t hxk_mib_counterRead(uint32_t index, uint32_t port, uint32_t *value);
// Reset the counters of the ports in `portMask`, and the global ones when `global` is set.
int32_t hxk_mib_counterReset(uint32_t portMask, uint32_t global);
// Reset one port's counters (port 0..15).
int32_t hxk_mib_portCounterReset(uint32_t port);

// PHY OCP register access: OCP address a is chip address 2a.
int32_t hx5200_ocp_read(uint32_t ocpAddr, uint32_t *value);
int32_t hx5200_ocp_write(uint32_t ocpAddr, uint32_t value);
// Link word of a front port (0..7): bit 2 is link up. -1 for other ports.
int32_t hx5200_port_linkWordGet(uint32_t port, uint32_t *value);
