-- The link between the agent and its message broker, for Wireshark and tshark (Lua, 3.6 or newer).
--
-- docs/protocol.md describes the packets. To install: copy this file to the folder that "Help, About, Folders" calls
-- "Personal Lua Plugins", or name it with `-X lua_script:orvel.lua`.
--
-- The advisor names the broker's port, so none is known beforehand. Tell it in the protocol's preferences, for plain
-- TCP (also what an agent says through a proxy's tunnel) or for TLS:
--   tshark -X lua_script:orvel.lua -o orvel.tcp_ports:4000 ...
--   tshark -X lua_script:orvel.lua -o orvel.tls_ports:4000 -o tls.keylog_file:keys ...
-- or by "Decode As": -d tcp.port==4000,orvel, or -d tcp.port==4000,tls -d tls.port==4000,orvel.

local orvel = Proto("orvel", "Orvel Broker Protocol")

local AGENT_ID, TOKEN, PLAIN_MESSAGE, KEEPALIVES, HEARTBEAT, HEARTBEAT_RESPONSE = 0, 1, 2, 10, 11, 12
local NAMES = {
  [AGENT_ID] = "identity agent id",
  [TOKEN] = "identity token",
  [PLAIN_MESSAGE] = "plain message",
  [KEEPALIVES] = "keepalives",
  [HEARTBEAT] = "heartbeat",
  [HEARTBEAT_RESPONSE] = "heartbeat response",
}
-- A chunk of these has always the same length.
local LENGTHS = { [KEEPALIVES] = 12, [HEARTBEAT] = 16, [HEARTBEAT_RESPONSE] = 16 }

local SHORTEST_PACKET = 4
local LONGEST_TEXT = 64 -- of a name or token in a summary
local LATEST_CLOCK = 0xffffffff -- later ones are not shown as a date

local field = {
  summary = ProtoField.string("orvel.summary", "Summary"),
  type = ProtoField.uint8("orvel.type", "Type", base.DEC, NAMES),
  chunk_count = ProtoField.uint8("orvel.chunk_count", "Chunk count"),
  chunk = ProtoField.none("orvel.chunk", "Chunk"),
  length = ProtoField.uint16("orvel.chunk.length", "Length"),
  data = ProtoField.bytes("orvel.chunk.data", "Data"),
  agent_id = ProtoField.string("orvel.agent_id", "Agent id"),
  token = ProtoField.bytes("orvel.token", "Token"),
  handler = ProtoField.string("orvel.handler", "Handler"),
  payload = ProtoField.bytes("orvel.payload", "Payload"),
  time = ProtoField.uint32("orvel.keepalive.time", "Idle time", base.DEC, nil, nil, "Seconds"),
  probes = ProtoField.uint32("orvel.keepalive.probes", "Probes"),
  interval = ProtoField.uint32("orvel.keepalive.interval", "Interval", base.DEC, nil, nil, "Seconds"),
  sequence = ProtoField.uint64("orvel.sequence", "Sequence number"),
  clock = ProtoField.int64("orvel.clock", "Agent's clock", base.DEC, nil, nil, "Seconds since 1970"),
  date = ProtoField.absolute_time("orvel.date", "Agent's date", base.UTC),
  unused = ProtoField.bytes("orvel.unused", "Not looked at"),
}
orvel.fields = field

local function oddity(name, text, severity)
  return ProtoExpert.new("orvel." .. name, text, expert.group.PROTOCOL, severity)
end

local odd = {
  unknown = oddity("unknown_type", "Unknown type: read and skipped", expert.severity.NOTE),
  count = oddity("chunk_count_0", "A chunk count of 0 is read as 256", expert.severity.WARN),
  early = oddity("early_end", "An empty chunk ends the packet, though more were announced", expert.severity.WARN),
  surplus = oddity("surplus_chunks", "One chunk was expected", expert.severity.WARN),
  length = oddity("wrong_length", "Wrong length for this type", expert.severity.WARN),
  nobody = oddity("no_identity", "The identity is empty", expert.severity.WARN),
  no_handler = oddity("no_handler", "No handler is named: the message is dropped", expert.severity.WARN),
  nul = oddity("nul_in_handler", "The handler's name ends at its first NUL byte", expert.severity.WARN),
  incomplete = oddity("incomplete", "The rest of the packet is not in the capture", expert.severity.WARN),
}
orvel.experts = odd

orvel.prefs.tcp_ports = Pref.range("TCP ports", "", "Ports of brokers without TLS, also behind a proxy", 65535)
orvel.prefs.tls_ports = Pref.range("TLS ports", "", "Ports of brokers with TLS", 65535)

-- The chunks of the packet at `at`, and the position behind it; or nil when its end is not there.
local function find_chunks(buffer, at)
  local size = buffer:len()
  if size < at + SHORTEST_PACKET then return nil end
  local announced = buffer(at + 1, 1):uint()
  if announced == 0 then announced = 256 end
  local chunks, position = {}, at + 2
  repeat
    if size < position + 2 then return nil end
    local length = buffer(position, 2):uint()
    local behind = position + 2 + length
    if size < behind then return nil end
    chunks[#chunks + 1] = { at = position, length = length }
    position = behind
  until length == 0 or #chunks == announced
  return chunks, position
end

local function data_of(buffer, chunk)
  return buffer(chunk.at + 2, chunk.length)
end

local function bytes_of(buffer, chunk)
  return chunk.length > 0 and data_of(buffer, chunk):raw() or ""
end

local function printable(bytes)
  local shown = bytes:sub(1, LONGEST_TEXT):gsub("[^ -~]", function(byte)
    return string.format("\\x%02x", byte:byte())
  end)
  return #bytes > LONGEST_TEXT and shown .. "..." or shown
end

local function lengths(chunks)
  local shown = {}
  for index, chunk in ipairs(chunks) do shown[index] = chunk.length end
  return table.concat(shown, ", ")
end

-- What a packet says, in one line: the lab's trace shows the same.

local summarize = {}

summarize[AGENT_ID] = function(buffer, chunks)
  return string.format("%s '%s'", NAMES[AGENT_ID], printable(bytes_of(buffer, chunks[1])))
end

summarize[TOKEN] = function(buffer, chunks)
  return string.format("%s '%s'", NAMES[TOKEN], printable(bytes_of(buffer, chunks[1])))
end

summarize[PLAIN_MESSAGE] = function(buffer, chunks)
  local size = 0
  for index = 2, #chunks do size = size + chunks[index].length end
  local handler = printable(bytes_of(buffer, chunks[1]))
  return string.format("plain message for '%s', %d bytes in %d chunks", handler, size, #chunks - 1)
end

summarize[KEEPALIVES] = function(buffer, chunks)
  local values = data_of(buffer, chunks[1])
  local time, probes, interval = values(0, 4):uint(), values(4, 4):uint(), values(8, 4):uint()
  return string.format("keepalives time %.0f, probes %.0f, interval %.0f", time, probes, interval)
end

summarize[HEARTBEAT] = function(buffer, chunks)
  local values = data_of(buffer, chunks[1])
  return string.format("heartbeat %s, clock %s", tostring(values(0, 8):uint64()), tostring(values(8, 8):int64()))
end

summarize[HEARTBEAT_RESPONSE] = function(buffer, chunks)
  return "heartbeat response " .. tostring(data_of(buffer, chunks[1])(0, 8):uint64())
end

local function is_well_formed(type, chunks)
  return not LENGTHS[type] or (#chunks == 1 and chunks[1].length == LENGTHS[type])
end

local function summary_of(buffer, type, chunks)
  if summarize[type] and is_well_formed(type, chunks) then return summarize[type](buffer, chunks) end
  return string.format("%s with chunks of [%s] bytes", NAMES[type] or "type " .. type, lengths(chunks))
end

-- The tree of a packet.

local show = {}

show[AGENT_ID] = function(tree, buffer, chunk)
  if chunk.length > 0 then tree:add(field.agent_id, data_of(buffer, chunk)) end
end

show[TOKEN] = function(tree, buffer, chunk)
  if chunk.length > 0 then tree:add(field.token, data_of(buffer, chunk)) end
end

show[KEEPALIVES] = function(tree, buffer, chunk)
  local values = data_of(buffer, chunk)
  tree:add(field.time, values(0, 4))
  tree:add(field.probes, values(4, 4))
  tree:add(field.interval, values(8, 4))
end

show[HEARTBEAT] = function(tree, buffer, chunk)
  local values = data_of(buffer, chunk)
  tree:add(field.sequence, values(0, 8))
  tree:add(field.clock, values(8, 8))
  local clock = values(8, 8):int64():tonumber()
  if clock >= 0 and clock <= LATEST_CLOCK then
    tree:add(field.date, values(8, 8), NSTime.new(clock, 0)):set_generated()
  end
end

show[HEARTBEAT_RESPONSE] = function(tree, buffer, chunk)
  local values = data_of(buffer, chunk)
  tree:add(field.sequence, values(0, 8))
  tree:add(field.unused, values(8, 8))
end

local function show_chunk(tree, buffer, type, chunk)
  local branch = tree:add(field.chunk, buffer(chunk.at, 2 + chunk.length))
  branch:append_text(string.format(", %d bytes", chunk.length))
  branch:add(field.length, buffer(chunk.at, 2))
  if show[type] and chunk.length == (LENGTHS[type] or chunk.length) then
    show[type](branch, buffer, chunk)
  elseif chunk.length > 0 then
    branch:add(field.data, data_of(buffer, chunk))
  end
  if LENGTHS[type] and chunk.length ~= LENGTHS[type] then branch:add_proto_expert_info(odd.length) end
end

-- The payload in one piece, however many chunks it came in.
local function show_payload(tree, buffer, chunks)
  local whole = ByteArray.new()
  for index = 2, #chunks do
    if chunks[index].length > 0 then whole:append(data_of(buffer, chunks[index]):bytes()) end
  end
  if whole:len() > 0 then tree:add(field.payload, whole:tvb("Payload")()) end
end

local function show_message(tree, buffer, chunks)
  local handler = bytes_of(buffer, chunks[1])
  if handler == "" then
    tree:add_proto_expert_info(odd.no_handler)
    return
  end
  local name = handler:match("^[^\0]*")
  local added = tree:add(field.handler, data_of(buffer, chunks[1]), name)
  if name ~= handler then added:add_proto_expert_info(odd.nul) end
  show_payload(tree, buffer, chunks)
end

local function show_oddities(tree, count_item, type, announced, chunks)
  if not NAMES[type] then tree:add_proto_expert_info(odd.unknown) end
  if announced == 0 then count_item:add_proto_expert_info(odd.count) end
  if #chunks ~= (announced == 0 and 256 or announced) then tree:add_proto_expert_info(odd.early) end
  if NAMES[type] and type ~= PLAIN_MESSAGE and #chunks > 1 then tree:add_proto_expert_info(odd.surplus) end
  if (type == AGENT_ID or type == TOKEN) and chunks[1].length == 0 then tree:add_proto_expert_info(odd.nobody) end
end

local function show_packet(tree, buffer, at, size, chunks)
  local type, announced = buffer(at, 1):uint(), buffer(at + 1, 1):uint()
  local summary = summary_of(buffer, type, chunks)
  local branch = tree:add(orvel, buffer(at, size))
  branch:append_text(", " .. summary)
  branch:add(field.summary, buffer(at, size), summary):set_generated()
  branch:add(field.type, buffer(at, 1))
  local count_item = branch:add(field.chunk_count, buffer(at + 1, 1))
  for _, chunk in ipairs(chunks) do show_chunk(branch, buffer, type, chunk) end
  if type == PLAIN_MESSAGE then show_message(branch, buffer, chunks) end
  show_oddities(branch, count_item, type, announced, chunks)
  return summary
end

-- A frame may hold several packets, which may come in several calls.
local function show_in_columns(pinfo, summaries)
  if #summaries == 0 then return end
  local text = table.concat(summaries, "; ")
  pinfo.cols.protocol = "ORVEL"
  if pinfo.private["orvel"] then
    pinfo.cols.info:append("; " .. text)
  else
    pinfo.cols.info:set(text)
    pinfo.private["orvel"] = "shown"
  end
  pinfo.cols.info:fence()
end

-- Asks for the bytes of the packet at `at` that are still to come; or says that they will not come.
local function wait_for_rest(tree, buffer, pinfo, at)
  local cut_by_capture = buffer:len() < buffer:reported_len()
  if pinfo.can_desegment > 0 and not cut_by_capture then
    pinfo.desegment_offset = at
    pinfo.desegment_len = DESEGMENT_ONE_MORE_SEGMENT -- a number of bytes that is too small would lead TLS astray
    return
  end
  tree:add(orvel, buffer(at)):add_proto_expert_info(odd.incomplete)
end

function orvel.dissector(buffer, pinfo, tree)
  local at, summaries = 0, {}
  while at < buffer:len() do
    local chunks, position = find_chunks(buffer, at)
    if not chunks then
      wait_for_rest(tree, buffer, pinfo, at)
      break
    end
    summaries[#summaries + 1] = show_packet(tree, buffer, at, position - at, chunks)
    at = position
  end
  show_in_columns(pinfo, summaries)
  return buffer:len()
end

-- Ports.

local tcp_table, tls_table = DissectorTable.get("tcp.port"), DissectorTable.get("tls.port")
local tls = Dissector.get("tls")
local known = { tcp = "", tls = "" }

local function register(ports, table, dissector, change)
  if ports ~= "" then table[change](table, ports, dissector) end
end

local function change_ports(change)
  register(known.tcp, tcp_table, orvel, change)
  register(known.tls, tls_table, orvel, change)
  register(known.tls, tcp_table, tls, change)
end

function orvel.prefs_changed()
  change_ports("remove")
  known = { tcp = orvel.prefs.tcp_ports, tls = orvel.prefs.tls_ports }
  change_ports("add")
end

tcp_table:add_for_decode_as(orvel)
tls_table:add_for_decode_as(orvel)
