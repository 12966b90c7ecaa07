#include "internal/common/hxk_mib.h"

#include <array>

#include "access/access.h"
#include "internal/common/hx5200_regasicdrv.h"

namespace {

// Read a self-clearing bit HXK_MIB_RESET_POLLS times (failed reads are not counted, but a
// link that keeps failing gives up after as many failures); still set at the end: -1.
int32_t pollResetBit(uint32_t addr, uint32_t lsp) {
  uint32_t bit = 0;
  uint32_t good = 0, bad = 0;
  while (good < HXK_MIB_RESET_POLLS) {
    uint32_t v = 0;
    int32_t ret = reg_field_read(1, addr, lsp, 1, &v);
    if (ret != 0) {
      if (++bad >= HXK_MIB_RESET_POLLS) return ret;
      continue;
    }
    bit = v;
    ++good;
  }
  return bit ? -1 : 0;
}

}  // namespace

int32_t hxk_mib_enable(void) {
  uint32_t v = 0;
  int32_t ret = reg_read(1, MIB_GLOBAL_CTRL, &v);
  if (ret != 0) return ret;
  v |= 0x3u << MIB_GLOBAL_CTRL_EN_LSP;
  ret = reg_write(1, MIB_GLOBAL_CTRL, v);
  if (ret != 0) return ret;
  ret = reg_write(1, MIB_GLOBAL_PORT_EN, 0xFFFFFFFFu);
  if (ret != 0) return ret;
  // Every port is attempted; the result is that of the last one.
  for (uint32_t port = 0; port < MIB_PORTS; ++port)
    ret = reg_field_write(1, MIB_PORT_CTRL + port * MIB_PORT_STRIDE, MIB_PORT_CTRL_EN_LSP, MIB_PORT_CTRL_EN_LEN, 1);
  return ret;
}

int32_t hxk_mib_counterRead(uint32_t index, uint32_t port, uint32_t *value) {
  uint32_t addr;
  if (index <= HXK_MIB_SYS_INDEX_MAX)
    addr = MIB_SYS_BASE + 4 * index;
  else  // unsigned arithmetic: indexes 190..999 wrap below the port block, as built
    addr = (port << MIB_PORT_SHIFT) + MIB_PORT_BASE + 4 * (index - HXK_MIB_PORT_INDEX_BASE);
  return reg_read(1, addr, value);
}

int32_t hxk_mib_counterReset(uint32_t portMask, uint32_t global) {
  if (portMask >= (1u << MIB_PORTS)) return HXK_MIB_ERR_MASK;
  int32_t ret = reg_field_write(1, MIB_GLOBAL_RESET, MIB_GLOBAL_RESET_SYS_LSP, MIB_GLOBAL_RESET_SYS_LEN,
                                global ? 1 : 0);
  if (ret == 0) ret = pollResetBit(MIB_GLOBAL_RESET, MIB_GLOBAL_RESET_SYS_LSP);
  if (ret != 0) return ret;
  for (uint32_t port = 0; port < MIB_PORTS; ++port) {
    if ((portMask & (1u << port)) == 0) continue;
    const uint32_t ctrl = MIB_PORT_CTRL + port * MIB_PORT_STRIDE;
    ret = reg_field_write(1, ctrl, MIB_PORT_CTRL_RST_LSP, MIB_PORT_CTRL_RST_LEN, 1);
    if (ret == 0) ret = pollResetBit(ctrl, MIB_PORT_CTRL_RST_LSP);
    if (ret != 0) return ret;
  }
  if (global) {
    ret = reg_field_write(1, MIB_GLOBAL_RESET2, MIB_GLOBAL_RESET2_AGG_LSP, MIB_GLOBAL_RESET2_AGG_LEN, 1);
    if (ret != 0) return ret;
  }
  // The port number is added to the byte address unscaled: kept as the chip's driver has it.
  for (uint32_t port = 0; port < MIB_PORTS; ++port) {
    if ((portMask & (1u << port)) == 0) continue;
    for (uint32_t reg : std::array{MIB_PORT_CLR0, MIB_PORT_CLR1, MIB_PORT_CLR2}) {
      ret = reg_write(1, reg + port, 0xFFFFFFFFu);
      if (ret != 0) return ret;
    }
  }
  return 0;
}

int32_t hxk_mib_portCounterReset(uint32_t port) {
  if (port >= MIB_PORTS) return HXK_MIB_ERR_PORT;
  return hxk_mib_counterReset(1u << port, 0);
}

int32_t hx5200_ocp_read(uint32_t ocpAddr, uint32_t *value) { return reg_read(1, ocpAddr * 2, value); }

int32_t hx5200_ocp_write(uint32_t ocpAddr, uint32_t value) { return reg_write(1, ocpAddr * 2, value); }

int32_t hx5200_port_linkWordGet(uint32_t port, uint32_t *value) {
  if (port > 7) return -1;
  return hx5200_ocp_read((port + 1) * OCP_PORT_LINK_BASE + OCP_PORT_LINK_OFFSET, value);
}
