-- Wireshark / tshark dissector for the KIV Tool's USB I/O adapter (USB 0c55:5731): the
-- command headers, data packets, status bytes and read responses carried by its bulk
-- endpoints 0x02 (host to adapter) and 0x81 (adapter to host).
--
--   tshark -X lua_script:tools/wireshark/kivusb.lua -r kiv.pcap -Y kivusb
--   wireshark: copy this file to ~/.local/lib/wireshark/plugins/
--
-- It decodes the captures written by the tool (KIVTOOL_PCAP) and live usbmon captures.
-- Data packets are decoded with the command they follow, so a capture is read in order.
-- Every header starts a command, a known code or not. Packets cut short by the snapshot
-- length, short headers and responses, data of odd length and address blocks longer than
-- their packet are flagged (expert info) and never decoded as data.

local kivusb = Proto("kivusb", "KIV USB I/O adapter")

local MAGIC = "01fe02fd03fc"
local HEADER = 24

local code_names = {
  [0x11] = "I2C configure",
  [0x13] = "I2C register write",
  [0x14] = "I2C register read",
  [0x15] = "I2C flash write",
  [0x21] = "SPI configure",
  [0x23] = "SPI register write",
  [0x24] = "SPI register read",
  [0x25] = "SPI flash write",
  [0x41] = "SPI configure (second step)",
  [0x43] = "SMI write",
  [0x44] = "SMI read",
  [0x45] = "SMI flash write",
}

local status_names = {
  [0xAA] = "ACK: command accepted",
  [0xAB] = "NAK: command refused, sent again",
  [0xBA] = "write completed",
  [0xCA] = "configuration completed",
  [0xAC] = "flash data missing, sent again",
}

-- How each command lays out its fields: bus, kind and the byte order of its data.
local kinds = {
  [0x11] = { bus = "i2c", kind = "config" },
  [0x13] = { bus = "i2c", kind = "write", order = "le" },
  [0x14] = { bus = "i2c", kind = "read", order = "le" },
  [0x15] = { bus = "i2c", kind = "flash" },
  [0x21] = { bus = "spi", kind = "config" },
  [0x23] = { bus = "spi", kind = "write", order = "be" },
  [0x24] = { bus = "spi", kind = "read", order = "be" },
  [0x25] = { bus = "spi", kind = "flash" },
  [0x41] = { bus = "spi", kind = "config" },
  [0x43] = { bus = "smi", kind = "write", order = "be16" },
  [0x44] = { bus = "smi", kind = "read", order = "be16" },
  [0x45] = { bus = "smi", kind = "flash" },
}

local f = kivusb.fields
f.magic = ProtoField.bytes("kivusb.magic", "Magic")
f.length = ProtoField.uint8("kivusb.length", "Transfer length", base.DEC)
f.flash_hdr = ProtoField.uint8("kivusb.flash_header", "Flash-write marker", base.DEC)
f.code = ProtoField.uint8("kivusb.code", "Command code", base.HEX, code_names)
f.sub = ProtoField.uint8("kivusb.sub", "Sub-code", base.DEC)
f.wlen = ProtoField.uint16("kivusb.write_len", "Write data length", base.DEC)
f.rlen = ProtoField.uint16("kivusb.read_len", "Read data length wanted", base.DEC)
f.param_a = ProtoField.uint8("kivusb.param_a", "Configuration parameter A", base.DEC)
f.param_b = ProtoField.uint16("kivusb.param_b", "Configuration parameter B", base.HEX)
f.i2c_dev = ProtoField.uint8("kivusb.i2c_device", "I2C device address", base.HEX)
f.phy = ProtoField.uint8("kivusb.phy", "SMI PHY address", base.DEC)
f.reg = ProtoField.uint8("kivusb.reg", "SMI register", base.DEC)
f.addr_len = ProtoField.uint8("kivusb.addr_len", "Address block length", base.DEC)
f.addr_block = ProtoField.bytes("kivusb.addr_block", "Address block")
f.spi_op = ProtoField.uint8("kivusb.spi_op", "SPI opcode", base.HEX, { [0x02] = "write", [0x03] = "read" })
f.addr = ProtoField.uint32("kivusb.addr", "Register address", base.HEX)
f.flash_addr = ProtoField.uint32("kivusb.flash_addr", "Flash address", base.HEX)
f.flash_flag = ProtoField.uint8("kivusb.flash_flag", "Flash flag", base.HEX)
f.flash_param = ProtoField.uint8("kivusb.flash_param", "Flash parameter", base.DEC)
f.data = ProtoField.bytes("kivusb.data", "Data")
f.data_len = ProtoField.uint32("kivusb.data_len", "Data length", base.DEC)
f.trailer = ProtoField.bytes("kivusb.trailer", "Trailer (four 0xFF)")
f.status = ProtoField.uint8("kivusb.status", "Status", base.HEX, status_names)
f.value = ProtoField.uint32("kivusb.value", "Register value", base.HEX)
f.resp_code = ProtoField.uint8("kivusb.response", "Response to", base.HEX, code_names)

local ef = kivusb.experts
ef.bad_trailer = ProtoExpert.new("kivusb.bad_trailer", "Data packet does not end in four 0xFF",
  expert.group.MALFORMED, expert.severity.WARN)
ef.unknown_status = ProtoExpert.new("kivusb.unknown_status", "Unknown status byte",
  expert.group.PROTOCOL, expert.severity.WARN)
ef.nak = ProtoExpert.new("kivusb.nak", "Adapter refused the command",
  expert.group.RESPONSE_CODE, expert.severity.NOTE)
ef.unknown_code = ProtoExpert.new("kivusb.unknown_code", "Unknown command code",
  expert.group.PROTOCOL, expert.severity.WARN)
ef.truncated = ProtoExpert.new("kivusb.truncated", "Packet cut short by the capture's snapshot length",
  expert.group.MALFORMED, expert.severity.WARN)
ef.short_header = ProtoExpert.new("kivusb.short_header", "Command header or response shorter than 24 bytes",
  expert.group.MALFORMED, expert.severity.ERROR)
ef.addr_len = ProtoExpert.new("kivusb.bad_addr_len", "Address block runs past the end of the packet",
  expert.group.MALFORMED, expert.severity.ERROR)
ef.short_data = ProtoExpert.new("kivusb.short_data", "Data packet shorter than its four-byte trailer",
  expert.group.MALFORMED, expert.severity.ERROR)
ef.odd_length = ProtoExpert.new("kivusb.odd_length", "Data length is not a whole number of registers",
  expert.group.MALFORMED, expert.severity.WARN)
ef.short_read = ProtoExpert.new("kivusb.short_read", "Response carries fewer data bytes than were asked for",
  expert.group.MALFORMED, expert.severity.WARN)
ef.no_data = ProtoExpert.new("kivusb.unexpected_data", "Data packet after a command that carries no data",
  expert.group.SEQUENCE, expert.severity.WARN)
ef.other_response = ProtoExpert.new("kivusb.other_response", "Response to another command than the last one sent",
  expert.group.SEQUENCE, expert.severity.WARN)

local usb_bus = Field.new("usb.bus_id")
local usb_dev = Field.new("usb.device_address")
local usb_ep = Field.new("usb.endpoint_address")

-- The last command header each adapter was sent (while the capture is read in order), and
-- for every data packet the command it belongs to.
local last_cmd = {}
local frame_cmd = {}

function kivusb.init()
  last_cmd = {}
  frame_cmd = {}
end

local function device_key()
  local b, d = usb_bus(), usb_dev()
  if not b or not d then return "?" end
  return tostring(b.value) .. "." .. tostring(d.value)
end

local function direction_in()
  local ep = usb_ep()
  return ep and bit.band(ep.value, 0x80) ~= 0
end

-- A 32-bit (or SMI 16-bit) value from `range` in the command's byte order.
local function word(range, order)
  if order == "le" then return range:le_uint() end
  return range:uint()
end

local function word_size(order)
  return order == "be16" and 2 or 4
end

-- The register address carried in an address block.
local function block_address(tree, block, code)
  local k = kinds[code]
  local len = block:len()
  if k.bus == "i2c" and len >= 3 then
    -- three bytes, least significant first
    local a = block(0, 3)
    tree:add_le(f.addr, a, a:le_uint())
    return a:le_uint()
  elseif k.bus == "spi" and len >= 4 then
    tree:add(f.spi_op, block(0, 1))
    local a = block(1, 3)
    tree:add(f.addr, a, a:uint())
    return a:uint()
  end
  return nil
end

-- A header too short to hold its fields (cut by the snapshot length, or sent short): what
-- is there is named, nothing more is read from it. It still starts a command.
local function dissect_short_header(tvb, pinfo, tree, truncated)
  local len = tvb:len()
  local code = len >= 9 and tvb(8, 1):uint() or nil
  local t = tree:add(kivusb, tvb(), "KIV adapter command (header cut short)")
  t:add(f.magic, tvb(0, 6))
  if code then t:add(f.code, tvb(8, 1)) end
  t:add_proto_expert_info(truncated and ef.truncated or ef.short_header)
  pinfo.cols.info = code
    and string.format("Command 0x%02x %s (header cut short)", code, code_names[code] or "(unknown)")
    or "Command (header cut short)"
  last_cmd[device_key()] = { code = code, cut = true }
end

local function dissect_header(tvb, pinfo, tree)
  local code = tvb(8, 1):uint()
  local k = kinds[code]
  local t = tree:add(kivusb, tvb(), "KIV adapter command: " .. (code_names[code] or "unknown"))
  t:add(f.magic, tvb(0, 6))
  t:add(f.length, tvb(6, 1))
  local ci = t:add(f.code, tvb(8, 1))
  t:add(f.sub, tvb(9, 1))
  local info = string.format("Command 0x%02x %s", code, code_names[code] or "(unknown)")
  local cmd = { code = code }
  if not k then
    ci:add_proto_expert_info(ef.unknown_code)
    pinfo.cols.info = info
    last_cmd[device_key()] = cmd
    return
  end
  if k.kind == "flash" then
    t:add(f.flash_hdr, tvb(7, 1))
    t:add(f.wlen, tvb(10, 2))
    t:add(f.flash_addr, tvb(15, 4))
    t:add(f.flash_flag, tvb(20, 1))
    t:add(f.flash_param, tvb(21, 1))
    info = info .. string.format(" at 0x%06x, %d bytes", tvb(15, 4):uint(), tvb(10, 2):uint())
  elseif k.kind == "config" then
    t:add(f.param_a, tvb(14, 1))
    t:add(f.param_b, tvb(17, 2))
    if code == 0x11 then
      t:add(f.i2c_dev, tvb(18, 1))
      info = info .. string.format(", device 0x%02x", tvb(18, 1):uint())
    end
  else
    if k.kind == "write" then t:add(f.wlen, tvb(10, 2)) else t:add(f.rlen, tvb(12, 2)) end
    if k.bus == "smi" then
      t:add(f.phy, tvb(16, 1))
      t:add(f.reg, tvb(18, 1))
      cmd.phy, cmd.reg = tvb(16, 1):uint(), tvb(18, 1):uint()
      info = info .. string.format(" phy %d reg %d", cmd.phy, cmd.reg)
    end
  end
  local alen = tvb(23, 1):uint()
  local ai = t:add(f.addr_len, tvb(23, 1))
  if alen > 0 and tvb:len() >= HEADER + alen then
    local block = tvb(HEADER, alen)
    local bt = t:add(f.addr_block, block)
    cmd.addr = block_address(bt, block, code)
    if cmd.addr then info = info .. string.format(" [0x%06x]", cmd.addr) end
  elseif alen > 0 then
    ai:add_proto_expert_info(ef.addr_len)
  end
  pinfo.cols.info = info
  last_cmd[device_key()] = cmd
end

-- Data packet: the data of the write command sent before it, then four 0xFF.
local function dissect_data(tvb, pinfo, tree, cmd)
  local k = kinds[cmd.code]
  local n = tvb:len() - 4
  local t = tree:add(kivusb, tvb(), "KIV adapter data: " .. (code_names[cmd.code] or ""))
  t:add(f.code, cmd.code):set_generated()
  if n > 0 then t:add(f.data, tvb(0, n)) end
  t:add(f.data_len, n):set_generated()
  local trailer = tvb(n, 4)
  local ti = t:add(f.trailer, trailer)
  if trailer:bytes():tohex() ~= "FFFFFFFF" then ti:add_proto_expert_info(ef.bad_trailer) end
  local info = string.format("Data for 0x%02x", cmd.code)
  if k.kind == "write" then
    if n % word_size(k.order) ~= 0 then t:add_proto_expert_info(ef.odd_length) end
    if cmd.addr then t:add(f.addr, cmd.addr):set_generated() end
    if cmd.phy then
      t:add(f.phy, cmd.phy):set_generated()
      t:add(f.reg, cmd.reg):set_generated()
    end
    local size = word_size(k.order)
    for off = 0, n - size, size do
      local r = tvb(off, size)
      local v = word(r, k.order)
      if k.order == "le" then t:add_le(f.value, r, v) else t:add(f.value, r, v) end
      if off == 0 then
        if cmd.addr then
          info = info .. string.format(": [0x%06x] = 0x%08x", cmd.addr, v)
        elseif cmd.phy then
          info = info .. string.format(": phy %d reg %d = 0x%04x", cmd.phy, cmd.reg, v)
        else
          info = info .. string.format(": 0x%08x", v)
        end
      end
    end
  else
    info = info .. string.format(": %d bytes", n)
  end
  pinfo.cols.info = info
end

local function dissect_status(tvb, pinfo, tree, cmd)
  local s = tvb(0, 1):uint()
  local t = tree:add(kivusb, tvb(), "KIV adapter status")
  t:add(f.code, cmd.code):set_generated()
  local ti = t:add(f.status, tvb(0, 1))
  if not status_names[s] then ti:add_proto_expert_info(ef.unknown_status) end
  if s == 0xAB then ti:add_proto_expert_info(ef.nak) end
  pinfo.cols.info = string.format("Status 0x%02x %s", s, status_names[s] or "(unknown)")
end

-- Read response: header (byte 8 = the command code), the address block echoed, the data,
-- four 0xFF.
local function dissect_response(tvb, pinfo, tree, cmd)
  local code = tvb(8, 1):uint()
  local k = kinds[code]
  local alen = tvb(23, 1):uint()
  local t = tree:add(kivusb, tvb(), "KIV adapter response: " .. (code_names[code] or "unknown"))
  if tvb(0, 6):bytes():tohex():lower() == MAGIC then t:add(f.magic, tvb(0, 6)) end
  t:add(f.resp_code, tvb(8, 1))
  t:add(f.code, tvb(8, 1))
  t:add(f.rlen, tvb(12, 2))
  t:add(f.addr_len, tvb(23, 1))
  local info = string.format("Response 0x%02x", code)
  if cmd and code ~= cmd.code then t:add_proto_expert_info(ef.other_response) end
  if tvb:len() < HEADER + alen then t:add_proto_expert_info(ef.addr_len) end
  if not k or k.kind ~= "read" or tvb:len() < HEADER + alen then
    if cmd and code ~= cmd.code then info = info .. string.format(" (command was 0x%02x)", cmd.code) end
    pinfo.cols.info = info
    return
  end
  local addr
  if alen > 0 then
    local block = tvb(HEADER, alen)
    addr = block_address(t:add(f.addr_block, block), block, code)
  elseif cmd and cmd.code == code then
    if cmd.phy then
      t:add(f.phy, cmd.phy):set_generated()
      t:add(f.reg, cmd.reg):set_generated()
    end
  end
  local start = HEADER + alen
  local n = math.min(tvb(12, 2):uint(), tvb:len() - start)
  if n > 0 then t:add(f.data, tvb(start, n)) end
  if n < tvb(12, 2):uint() then t:add_proto_expert_info(ef.short_read) end
  local size = word_size(k.order)
  for off = 0, n - size, size do
    local r = tvb(start + off, size)
    local v = word(r, k.order)
    if k.order == "le" then t:add_le(f.value, r, v) else t:add(f.value, r, v) end
    if off == 0 then
      if addr then
        info = info .. string.format(": [0x%06x] = 0x%08x", addr, v)
      elseif cmd and cmd.phy then
        info = info .. string.format(": phy %d reg %d = 0x%04x", cmd.phy, cmd.reg, v)
      else
        info = info .. string.format(": 0x%04x", v)
      end
    end
  end
  if n > size then info = info .. string.format(" (%d registers)", math.floor(n / size)) end
  if tvb:len() >= start + n + 4 then t:add(f.trailer, tvb(start + n, 4)) end
  pinfo.cols.info = info
end

-- A packet that cannot be decoded: named, flagged, its bytes shown as they are.
local function dissect_undecoded(tvb, pinfo, tree, what, expert_field, cmd)
  local t = tree:add(kivusb, tvb(), "KIV adapter " .. what .. " (not decoded)")
  if cmd and cmd.code then t:add(f.code, cmd.code):set_generated() end
  t:add_proto_expert_info(expert_field)
  local name = what:sub(1, 1):upper() .. what:sub(2)
  pinfo.cols.info = (cmd and cmd.code) and string.format("%s for 0x%02x (not decoded)", name, cmd.code)
    or name .. " (not decoded)"
end

function kivusb.dissector(tvb, pinfo, tree)
  local len = tvb:len()
  if len == 0 then return 0 end
  local key = device_key()
  local truncated = tvb:reported_len() > len
  local has_magic = len >= 6 and tvb(0, 6):bytes():tohex():lower() == MAGIC
  if direction_in() then
    local cmd = last_cmd[key]
    if not pinfo.visited then frame_cmd[pinfo.number] = cmd else cmd = frame_cmd[pinfo.number] end
    -- Only from a device that was sent adapter commands (or that shows the magic).
    if not cmd and not has_magic then return 0 end
    pinfo.cols.protocol = "KIVUSB"
    if truncated then
      dissect_undecoded(tvb, pinfo, tree, "response", ef.truncated, cmd)
    elseif len == 1 then
      dissect_status(tvb, pinfo, tree, cmd or {})
    elseif len < HEADER then
      dissect_undecoded(tvb, pinfo, tree, "response", ef.short_header, cmd)
    else
      dissect_response(tvb, pinfo, tree, cmd)
    end
    return len
  end
  if has_magic then
    pinfo.cols.protocol = "KIVUSB"
    if len < HEADER or truncated then
      dissect_short_header(tvb, pinfo, tree, truncated)
    else
      dissect_header(tvb, pinfo, tree)
    end
    return len
  end
  -- A data packet belongs to the command sent before it.
  local cmd
  if not pinfo.visited then
    cmd = last_cmd[key]
    frame_cmd[pinfo.number] = cmd
  else
    cmd = frame_cmd[pinfo.number]
  end
  if not cmd then return 0 end
  pinfo.cols.protocol = "KIVUSB"
  local k = cmd.code and kinds[cmd.code]
  if truncated then
    dissect_undecoded(tvb, pinfo, tree, "data", ef.truncated, cmd)
  elseif not k or (k.kind ~= "write" and k.kind ~= "flash") or cmd.cut then
    dissect_undecoded(tvb, pinfo, tree, "data", cmd.cut and ef.short_header or ef.no_data, cmd)
  elseif len < 4 then
    dissect_undecoded(tvb, pinfo, tree, "data", ef.short_data, cmd)
  else
    dissect_data(tvb, pinfo, tree, cmd)
  end
  return len
end

-- The adapter's bulk transfers: by its vendor and product when the capture saw it
-- enumerate, otherwise by interface class (vendor-specific, or unknown when no descriptors
-- were captured). Transfers that are not the adapter's are left to the other dissectors.
local bulk = DissectorTable.get("usb.bulk")
bulk:add(0xff, kivusb)
bulk:add(0xffff, kivusb)
-- Older Wireshark versions have no table by product.
pcall(function() DissectorTable.get("usb.product"):add(0x0c555731, kivusb) end)
