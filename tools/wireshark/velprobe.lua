-- Wireshark dissector for the Veltra agent protocol: sessions over TCP and
-- discovery over UDP. docs/protocol.md describes both.
--
--   wireshark -X lua_script:tools/wireshark/velprobe.lua
--
-- or copy the file into the folder of personal Lua plugins. Not as root: since
-- version 4.4 Wireshark runs no Lua for root. The port is a preference of each
-- of the two protocols. Filters, for example:
--
--   veltra.message == "negotiate_nack"
--   veltra.client_private_key.testing == 1
--   veltra.incomplete or veltra.malformed
--
-- Written for the Lua 5.2 of Wireshark 4.0 and the Lua 5.4 of 4.4: its module
-- "bit" is the one that both have.

local session = Proto("veltra", "Veltra Agent Protocol")
local discovery = Proto("veltra_discovery", "Veltra Server Discovery")

-- By tag value (tag number * 8 + class * 2 + constructed bit): a message's name
-- and its fields in order. check_dissector.sh compares it with the page.
local messages = {
  [3] = {"client_wants", "version int"},
  [11] = {"server_offers", "version int"},
  [19] = {"negotiate_ack"},
  [27] = {"negotiate_nack", "reason text"},
  [67] = {"configure_req", "packageId int", "majorVersion int", "minorVersion int", "buildNumber int", "agentCaps int"},
  [75] = {"configure_resp", "id text", "checkinFrequency int"},
  [83] = {"checkin_req"},
  [91] = {"checkin_resp", "checkinAck bool", "confChanged bool", "upgradeAvailable bool"},
  [99] = {"upgrade_req", "packageId int", "majorVersion int", "minorVersion int", "buildNumber int", "agentCaps int"},
  [107] = {"upgrade_resp", "requiredCaps int", "data text"},
  [187] = {"server_time_req", "agentTimeSec int", "agentTimeUSec int"},
  [195] = {"server_time_resp", "serverTimeSec int", "serverTimeUSec int"},
  [235] = {"g_s_l_keep_alive", "interval int"},
  [243] = {"downtime_req", "downtimeInMinutes int"},
  [251] = {"downtime_resp", "success bool", "message text"},
  [259] = {"h_w_scan_req"},
  [267] = {"h_w_scan_resp", "nack bool"},
  [35] = {"diffie_hellmann_parameters", "modulus big number", "generator big number"},
  [43] = {"sporadic_bignum", "num big number"},
  [51] = {"auth_challenge", "num big number"},
  [59] = {"auth_response", "num big number"},
  [211] = {"g_s_l_nonce", "nonce big number"},
  [219] = {"g_s_l_signed_nonce", "snonce big number"},
}

-- Context-class messages have their meaning from the one around them.
local inner_messages = {
  client_wants = {
    [5] = {"client_no_auth"},
    [13] = {"client_private_key", "name text", "domain text", "id text", "hasMasterKey bool", "hasHallmark bool", "testing bool"},
    [21] = {"client_password"},
  },
  server_offers = {
    [5] = {"server_no_auth"},
    [13] = {"server_private_key", "hasMasterKey bool", "hasHallmark bool"},
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

-- --- Fields to filter for -----------------------------------------------------

local message_field = ProtoField.string("veltra.message", "Message")
session.fields = {message_field}

local function new_field(abbreviation, name, kind)
  if name == "version" then
    return ProtoField.uint32(abbreviation, name, base.HEX)
  elseif kind == "bool" then
    return ProtoField.bool(abbreviation, name)
  elseif kind == "text" then
    return ProtoField.string(abbreviation, name)
  elseif kind == "big number" then
    return ProtoField.bytes(abbreviation, name)
  end
  return ProtoField.int32(abbreviation, name)
end

-- declare turns each "name kind" of the messages into a field, such as
-- veltra.client_private_key.name.
local function declare(of)
  for _, message in pairs(of) do
    for i = 2, #message do
      local name, kind = message[i]:match("^(%S+) (.+)$")
      local field = new_field("veltra." .. message[1] .. "." .. name, name, kind)
      message[i] = {kind = kind, field = field}
      table.insert(session.fields, field)
    end
  end
end
declare(messages)
for _, inner in pairs(inner_messages) do declare(inner) end

local malformed = ProtoExpert.new("veltra.malformed", "Malformed value",
  expert.group.MALFORMED, expert.severity.ERROR)
local unexpected = ProtoExpert.new("veltra.unexpected",
  "Not the kind of value that stands here", expert.group.PROTOCOL,
  expert.severity.WARN)
local incomplete = ProtoExpert.new("veltra.incomplete",
  "The message does not end in this segment", expert.group.PROTOCOL,
  expert.severity.NOTE)
session.experts = {malformed, unexpected, incomplete}

-- --- Sessions -----------------------------------------------------------------

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

-- value_of gives a value in the form in which Wireshark takes the field of its
-- kind, nil when it cannot. Numbers and texts may be empty.
local function value_of(range, kind)
  if kind == "text" then
    return range:len() > 0 and range:string(ENC_UTF_8) or ""
  elseif kind == "bool" and range:len() == 1 then
    return range:uint() ~= 0
  elseif (kind == "int" or kind == "enum") and range:len() <= 4 then
    return range:len() > 0 and range:int() or 0
  end
  return nil
end

-- add_field is whether the value could be shown as the field expected.
local function add_field(tree, whole, contents, kind, expected)
  if kind == "int" and expected.kind == "big number" then
    tree:add(expected.field, contents)  -- bytes are taken from the range only
    return true
  end
  if kind ~= expected.kind then return false end
  local value = value_of(contents, kind)
  if value == nil then return false end
  tree:add(expected.field, whole, value)
  return true
end

local function show_primitive(tvb, at, stop, header, tree, expected)
  local contents = tvb(header.contents, header.length)
  local kind = kinds[header.tag] or string.format("tag %d", header.tag)
  local whole = tvb(at, stop - at)
  if expected and add_field(tree, whole, contents, kind, expected) then return end
  local value = value_of(contents, kind)
  if value == nil then value = contents:bytes():tohex() end
  local item = tree:add(whole, kind .. ": " .. tostring(value))
  if expected then item:add_proto_expert_info(unexpected) end
end

-- begin_element adds the item of an element to the tree and tells what it is: a
-- message, or just its name.
local function begin_element(range, tag, around, tree)
  local inner = around and inner_messages[around[1]] or {}
  local message = inner[tag] or messages[tag]
  if not message then
    local name = kinds[tag] or string.format("element, tag %d", tag)
    return tree:add(range, name), {name}
  end
  local branch = tree:add(message_field, range, message[1])
  branch:set_text(message[1])
  return branch, message
end

-- show adds the value at a place, as far as it is there, to the tree. around is
-- the message in which it stands, index its place there. Returns the value's
-- end, nil when it is cut off or malformed, and the name of an element.
local function show(tvb, at, tree, around, index, depth)
  local header = header_at(tvb, at)
  if not header or header.length == -1 then return nil end
  local stop = value_end(tvb, at)
  if stop == -1 then stop = nil end
  if header.length then
    if stop then
      show_primitive(tvb, at, stop, header, tree, around and around[index + 1])
    end
    return stop
  end

  local branch, message = begin_element(
    tvb(at, (stop or tvb:len()) - at), header.tag, around, tree)
  if depth == DEEPEST then return stop, message[1] end
  local child, place = header.contents, 1
  while child do
    local next_header = header_at(tvb, child)
    if next_header and next_header.tag == END_OF_CONTENTS then break end
    child = show(tvb, child, branch, message, place, depth + 1)
    place = place + 1
  end
  return stop, message[1]
end

-- A session consists of application-class messages of indefinite length.
local function begins_session(tvb)
  return tvb(0, 1):uint() >= 0x60 and tvb(0, 1):uint() <= 0x7F
end

-- A message that does not end here is shown as far as it goes: the session may
-- end inside it. When it goes on, it is shown again as a whole.
function session.dissector(tvb, pinfo, root)
  if not begins_session(tvb) then return 0 end
  pinfo.cols.protocol = "Veltra"
  local tree = root:add(session, tvb())
  local names, at = {}, 0
  while at < tvb:len() do
    local stop = value_end(tvb, at)
    local _, name = show(tvb, at, tree, nil, 0, 0)
    table.insert(names, name)
    if not stop then
      tree:add_proto_expert_info(incomplete)
      pinfo.desegment_offset = at
      pinfo.desegment_len = DESEGMENT_ONE_MORE_SEGMENT
      break
    elseif stop == -1 then
      tree:add_proto_expert_info(malformed)
      break
    end
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
    crc = bit.bxor(crc, range(i, 1):uint())
    for _ = 1, 8 do
      local mask = crc % 2 == 1 and 0xEDB88320 or 0
      crc = bit.bxor(bit.rshift(crc, 1), mask)
    end
  end
  return bit.bnot(crc) % 0x100000000  -- its results are signed
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
