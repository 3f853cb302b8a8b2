-- Wireshark dissector for the Veltra agent protocol: sessions over TCP and
-- discovery over UDP. docs/protocol.md describes both.
--
--   wireshark -X lua_script:tools/wireshark/velprobe.lua
--
-- or copy the file into the folder of personal Lua plugins. The port is a
-- preference of each of the two protocols.

local session = Proto("veltra", "Veltra Agent Protocol")
local discovery = Proto("veltra_discovery", "Veltra Server Discovery")

-- By tag value (tag number * 8 + class * 2 + constructed bit): a message's name
-- and its fields in order. check_dissector.sh compares it with the page.
local messages = {
  [3] = {"client_wants", "version"},
  [11] = {"server_offers", "version"},
  [19] = {"negotiate_ack"},
  [27] = {"negotiate_nack", "reason"},
  [67] = {"configure_req", "packageId", "majorVersion", "minorVersion", "buildNumber", "agentCaps"},
  [75] = {"configure_resp", "id", "checkinFrequency"},
  [83] = {"checkin_req"},
  [91] = {"checkin_resp", "checkinAck", "confChanged", "upgradeAvailable"},
  [99] = {"upgrade_req", "packageId", "majorVersion", "minorVersion", "buildNumber", "agentCaps"},
  [107] = {"upgrade_resp", "requiredCaps", "data"},
  [187] = {"server_time_req", "agentTimeSec", "agentTimeUSec"},
  [195] = {"server_time_resp", "serverTimeSec", "serverTimeUSec"},
  [235] = {"g_s_l_keep_alive", "interval"},
  [243] = {"downtime_req", "downtimeInMinutes"},
  [251] = {"downtime_resp", "success", "message"},
  [259] = {"h_w_scan_req"},
  [267] = {"h_w_scan_resp", "nack"},
  [35] = {"diffie_hellmann_parameters", "modulus", "generator"},
  [43] = {"sporadic_bignum", "num"},
  [51] = {"auth_challenge", "num"},
  [59] = {"auth_response", "num"},
  [211] = {"g_s_l_nonce", "nonce"},
  [219] = {"g_s_l_signed_nonce", "snonce"},
}

-- Context-class messages have their meaning from the one around them.
local inner_messages = {
  client_wants = {
    [5] = {"client_no_auth"},
    [13] = {"client_private_key", "name", "domain", "id", "hasMasterKey", "hasHallmark", "testing"},
    [21] = {"client_password"},
  },
  server_offers = {
    [5] = {"server_no_auth"},
    [13] = {"server_private_key", "hasMasterKey", "hasHallmark"},
    [21] = {"server_password"},
  },
}

local kinds = {
  [8] = "bool", [16] = "int", [32] = "text", [40] = "null", [72] = "real",
  [80] = "enum", [129] = "list",
}
local END_OF_CONTENTS, FILLER = 0, 0x19
-- Deeper values are shown as bytes.
local DEEPEST = 32

-- Every named field can be filtered for: veltra.client_private_key.name.
local fields = {}
local function declare(of)
  for _, message in pairs(of) do
    for i = 2, #message do
      local name = message[1] .. "." .. message[i]
      fields[name] = ProtoField.string("veltra." .. name, message[i])
      table.insert(session.fields, fields[name])
    end
  end
end
session.fields = {}
local malformed = ProtoExpert.new("veltra.malformed", "Malformed value",
  expert.group.MALFORMED, expert.severity.ERROR)
session.experts = {malformed}

-- header_at reads identifier and length: nil when more bytes are needed. A
-- missing length means an indefinite one; -1 a length that cannot be.
local function header_at(tvb, at)
  local size = tvb:len()
  local function next_byte()
    if at >= size then return nil end
    at = at + 1
    return tvb(at - 1, 1):uint()
  end

  local byte
  repeat byte = next_byte() until byte ~= FILLER
  if not byte then return nil end
  local number, class_and_form = byte % 32, math.floor(byte / 32)
  if number == 31 then
    number = 0
    repeat
      byte = next_byte()
      if not byte then return nil end
      number = (number * 128 + byte % 128) % 2 ^ 29
    until byte < 128
  end

  local length = next_byte()
  if not length then return nil end
  if length == 0x80 then
    length = nil
  elseif length > 0x84 then
    length = -1
  elseif length > 0x80 then
    local count = length - 0x80
    if at + count > size then return nil end
    length = tvb(at, count):uint()
    at = at + count
  end
  return {tag = number * 8 + class_and_form, contents = at, length = length}
end

-- value_end gives the place behind a value with all that is nested in it: nil
-- when more bytes are needed, -1 when it is malformed.
local function value_end(tvb, at)
  local open = 0
  repeat
    local header = header_at(tvb, at)
    if not header then return nil end
    if header.length == -1 then return -1 end
    at = header.contents + (header.length or 0)
    if at > tvb:len() then return nil end
    if not header.length then
      open = open + 1
    elseif header.tag == END_OF_CONTENTS then
      open = open - 1
    end
  until open <= 0
  return at
end

local function value_text(kind, range, name)
  if kind == "null" then return "" end
  if not range then return (kind == "text") and "" or "0" end
  if kind == "text" then return range:string() end
  if kind == "bool" then return range:uint() ~= 0 and "true" or "false" end
  if (kind == "int" or kind == "enum") and range:len() <= 4 then
    if name == "version" then return string.format("0x%04X", range:uint()) end
    return tostring(range:int())
  end
  return range:bytes():tohex()
end

local function show_primitive(tvb, at, stop, header, tree, name, field)
  local range = header.length > 0 and tvb(header.contents, header.length)
  local kind = kinds[header.tag] or string.format("tag %d", header.tag)
  local text = value_text(kind, range, name)
  if field then
    tree:add(field, tvb(at, stop - at), text)
  else
    tree:add(tvb(at, stop - at), kind .. ": " .. text)
  end
end

-- show adds the complete value at a place to the tree. around is the message
-- in which it stands, index its place there. Returns the value's end and the
-- name of a message.
local function show(tvb, at, tree, around, index, depth)
  local header = header_at(tvb, at)
  local stop = value_end(tvb, at)
  if header.length then
    local name = around and around[index + 1]
    show_primitive(tvb, at, stop, header, tree, name,
      name and fields[around[1] .. "." .. name])
    return stop
  end

  local inner = around and inner_messages[around[1]] or {}
  local message = inner[header.tag] or messages[header.tag] or
    {kinds[header.tag] or string.format("element, tag %d", header.tag)}
  local branch = tree:add(tvb(at, stop - at), message[1])
  if depth == DEEPEST then return stop end
  local child, place = header.contents, 1
  while header_at(tvb, child).tag ~= END_OF_CONTENTS do
    child = show(tvb, child, branch, message, place, depth + 1)
    place = place + 1
  end
  return stop, message[1]
end

-- A session consists of application-class messages of indefinite length.
local function begins_session(tvb)
  return tvb(0, 1):uint() >= 0x60 and tvb(0, 1):uint() <= 0x7F
end

declare(messages)
for _, inner in pairs(inner_messages) do declare(inner) end

function session.dissector(tvb, pinfo, root)
  if not begins_session(tvb) then return 0 end
  pinfo.cols.protocol = "Veltra"
  local names, at, tree = {}, 0, nil
  while at < tvb:len() do
    local stop = value_end(tvb, at)
    if not stop then
      pinfo.desegment_offset = at
      pinfo.desegment_len = DESEGMENT_ONE_MORE_SEGMENT
      break
    end
    tree = tree or root:add(session, tvb())
    if stop == -1 then
      tree:add_proto_expert_info(malformed)
      break
    end
    local _, name = show(tvb, at, tree, nil, 0, 0)
    table.insert(names, name)
    at = stop
  end
  if #names > 0 then pinfo.cols.info = table.concat(names, ", ") end
  return tvb:len()
end

-- --- Discovery --------------------------------------------------------------

local MAGIC, SIZE, CHECKED_SIZE = 0x12345678, 20, 16
local words = {
  ProtoField.uint32("veltra_discovery.magic", "Magic", base.HEX),
  ProtoField.uint32("veltra_discovery.word1", "Word 1", base.HEX),
  ProtoField.uint32("veltra_discovery.word2", "Word 2"),
  ProtoField.uint32("veltra_discovery.kind", "Kind", base.DEC,
    {[1] = "query", [2] = "answer"}),
  ProtoField.uint32("veltra_discovery.checksum", "CRC-32", base.HEX),
}
local wrong_checksum = ProtoExpert.new("veltra_discovery.checksum.wrong",
  "Wrong checksum", expert.group.CHECKSUM, expert.severity.WARN)
discovery.fields = words
discovery.experts = {wrong_checksum}

local function crc32(range)
  local crc = 0xFFFFFFFF
  for i = 0, range:len() - 1 do
    crc = bit32.bxor(crc, range(i, 1):uint())
    for _ = 1, 8 do
      local mask = crc % 2 == 1 and 0xEDB88320 or 0
      crc = bit32.bxor(bit32.rshift(crc, 1), mask)
    end
  end
  return bit32.bnot(crc)
end

function discovery.dissector(tvb, pinfo, root)
  if tvb:len() < CHECKED_SIZE or tvb(0, 4):uint() ~= MAGIC then return 0 end
  pinfo.cols.protocol = "Veltra discovery"
  local kind = tvb(12, 4):uint()
  pinfo.cols.info = ({"query", "answer"})[kind] or "unknown kind"
  local tree = root:add(discovery, tvb())
  for i, word in ipairs(words) do
    local at = 4 * (i - 1)
    if at + 4 > tvb:len() then break end
    local item = tree:add(word, tvb(at, 4))
    if i == 5 and tvb(at, 4):uint() ~= crc32(tvb(0, CHECKED_SIZE)) then
      item:add_proto_expert_info(wrong_checksum)
    end
  end
  return tvb:len()
end

-- --- Ports --------------------------------------------------------------------

local function follow_port(protocol, table_name)
  local ports = DissectorTable.get(table_name)
  local port = 3241
  protocol.prefs.port = Pref.uint("Port", port, "The port of the servers")
  ports:add(port, protocol)
  function protocol.prefs_changed()
    ports:remove(port, protocol)
    port = protocol.prefs.port
    ports:add(port, protocol)
  end
end

follow_port(session, "tcp.port")
follow_port(discovery, "udp.port")
