// `reg` and `smi` on the simulated board: output byte for byte, report lines included.
#include "regcmd_util.h"

namespace {

TEST(RegCommand, SetGetBitsFieldsRangeErrorsAndBursts) {
  expectSession({
      {"reg set 0x2F0000 0x12345678", "[0x2F0000]=0x12345678\n" + kOk},
      {"reg get 0x2F0000", "[0x2F0000]=0x12345678\n" + kOk},
      // Out of range bits and fields leave the register.
      {"reg setbit 0x2F0000 32 1", errnoLine(-1)},
      {"reg getbit 0x2F0000 32", errnoLine(-1000)},
      {"reg setbits 0x2F0000 0 31 5", errnoLine(-1000)},
      {"reg setbits 0x2F0000 9 8 0", errnoLine(-1000)},
      {"reg setbits 0x2F0000 0 3 16", errnoLine(-1000)},
      {"reg getbits 0x2F0000 4 32", errnoLine(-1000)},
      {"reg get 0x2F0000", "[0x2F0000]=0x12345678\n" + kOk},
      {"reg setbit 0x2F0000 0 1", "reg [0x2F0000] bit [0] = 1\n" + kOk},
      {"reg setbit 0x2F0000 4 0", "reg [0x2F0000] bit [4] = 0\n" + kOk},
      {"reg getbit 0x2F0000 4", "reg [0x2F0000] bit [4] = 0x0\n" + kOk},
      {"reg getbit 0x2F0000 0", "reg [0x2F0000] bit [0] = 0x1\n" + kOk},
      {"reg setbits 0x2F0000 8 15 0xAB", "reg [0x2f0000]  bits [15:8] = 0xab\n" + kOk},
      {"reg getbits 0x2F0000 8 15", "reg [0x2f0000] bits [15:8] = 0xab\n" + kOk},
      // The whole word has the mask 0: reads give 0, a zero write leaves the register.
      {"reg getbits 0x2F0000 0 31", "reg [0x2f0000] bits [31:0] = 0x0\n" + kOk},
      {"reg setbits 0x2F0000 0 31 0", "reg [0x2f0000]  bits [31:0] = 0x0\n" + kOk},
      {"reg get 0x2F0000", "[0x2F0000]=0x1234AB69\n" + kOk},
      {"reg set 0x2F0008 0x33", "[0x2F0008]=0x0033\n" + kOk},
      {"reg getburst 0x2F0000 3", "[0x2F0000]=0x1234AB69\n[0x2F0004]=0x0000\n[0x2F0008]=0x0033\n" + kOk},
      {"reg getburst 0x2F0000 13313", "getburst: 13313 registers asked, at most 13312 can be read at once\n" + errnoLine(-1)},
      // Only the I2C side reads bursts; on SPI the buffer is shown as it is.
      {"set regif spi", "SET CMD Over\n" + kOk},
      {"reg getburst 0x2F0008 2", "[0x2F0008]=0x0000\n[0x2F000C]=0x0000\n" + kOk},
  });
}

TEST(RegCommand, ChangePageByWordAndNumber) {
  expectSession({
      {"reg set 0x2F0000 5", "[0x2F0000]=0x0005\n" + kOk},
      {"reg chgpage current", "Current Page: 0x4a\r\n" + kOk},
      {"reg chgpage axi", "Change to AXI\r\n" + kOk},
      {"reg get 0x2F0000", "[0x2F0000]=0x0000\n" + kOk},           // another page
      {"reg get 0x103FF0", "[0x103FF0]=0x40000000\n" + kOk},       // generation register
      {"reg chgpage cpu", "Change to CPU\r\n" + kOk},
      {"reg chgpage spic", "SPI Control\r\nChange to SPI Controler\r\n" + kOk},
      {"reg chgpage 82", "Unknow page number 0x52\r\n" + kOk},
      {"reg chgpage 81", kOk},
      {"reg chgpage current", "Current Page: 0x51\r\n" + kOk},
      {"reg chgpage swcore", "Switch core\r\nChange to Switch Core\r\n" + kOk},
      {"reg get 0x2F0000", "[0x2F0000]=0x0005\n" + kOk},
  });
}

TEST(RegCommand, IndirectAccessAndItsTimeOut) {
  // 10000 polls that still show "not done" are tolerated, one more is a time-out.
  expectSession({{"reg indirset 0x2F0010 0xCAFE", "[0x2F0010]=0xCAFE\n" + kOk},
                 {"reg indirget 0x2F0010", "[0x2F0010]=0xCAFE\n" + kOk},
                 {"reg get 0x2F0010", "[0x2F0010]=0xCAFE\n" + kOk}},
                {{"KIVTOOL_SIM_INDIRECT_BUSY", "10000"}});
  expectSession({{"reg indirget 0x2F0010", errnoLine(11)}}, {{"KIVTOOL_SIM_INDIRECT_BUSY", "10001"}});
  // A stuck unit: get reports 11, set reports -2; on SMI the access is a plain one.
  expectSession({{"reg indirget 0x2F0010", errnoLine(11)},
                 {"reg indirset 0x2F0010 1", errnoLine(-2)},
                 {"set regif smi", "SET CMD Over\n" + kOk},
                 {"reg indirset 0x2F0020 7", "[0x2F0020]=0x0007\n" + kOk},
                 {"reg indirget 0x2F0020", "[0x2F0020]=0x0007\n" + kOk}},
                {{"KIVTOOL_SIM_INDIRECT_BUSY", "-1"}});
}

TEST(SmiCommand, ExtAccessChannelMasterAndMdioRegisters) {
  expectSession({
      // extaccess set drives the pins from the adapter; get stays access free.
      {"smi extaccess set 1", kOk},
      {"reg get 0x180048", "[0x180048]=0x0200\n" + kOk},
      {"smi extaccess get", "SEL_EXT_ACCESS = 0\r\n" + kOk},
      {"smi extaccess set 0x100", kOk},   // low byte 0 clears
      {"reg get 0x180048", "[0x180048]=0x0000\n" + kOk},
      // The channel master: pages, the T18 PHYs and the masks of its numbers.
      {"smi extaccess set 1", kOk},
      {"smi channel set 3 2 4 0x1234", "Write data Page: 0x2 Reg: 4 value:0x1234\r\n" + kOk},
      {"reg get 0x180048", "[0x180048]=0x0000\n" + kOk},   // MAC drives MDC/MDIO again
      {"smi channel get 3 2 4", "Page: 0x002 Reg: 4 value:0x1234\r\n" + kOk},
      {"smi channel get 19 2 36", "Page: 0x002 Reg: 4 value:0x1234\r\n" + kOk},   // low 4 / 5 bits
      {"phy read 3 2 4", "reg value: 1234\n" + kOk},   // channel ID 3 is internal PHY 3
      {"smi channel set 11 5 2 0x42", "Write data Page: 0x1f Reg: 2 value:0x42\r\n" + kOk},
      {"smi channel get 11 0 2", "Page: 0x01f Reg: 2 value:0x0042\r\n" + kOk},
      {"smi channel get 9 0 2", "Page: 0x000 Reg: 2 value:0xffff\r\n" + kOk},
      // MDIO registers over the SMI interface, and the broadcast.
      {"set regif smi", "SET CMD Over\n" + kOk},
      {"smi set 3 4 0x1234", "[0x0004]=0x1234\n" + kOk},
      {"smi get 3 4", "[0x0004]=0x1234\n" + kOk},
      {"smi set 3 5 0x12345", "[0x0005]=0x12345\n" + kOk},   // shown as typed, written as 16 bits
      {"smi get 3 5", "[0x0005]=0x2345\n" + kOk},
      {"smi get 20 1", "[0x0001]=0xffff\n" + kOk},          // nobody at address 20
      {"smi brdset 1 2 3 4", kOk},
  });
}

}  // namespace
