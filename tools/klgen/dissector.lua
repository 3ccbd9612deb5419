-- Messages between services, for Wireshark and tshark: link type USER0, a packet a frame as a socket carries it.  A capture
-- is of what the senders wrote; the interface of a packet is its sender, "netif (32)".  Of frames that were cut by the
-- capture the part that is there is shown.

-- Wireshark takes a protocol once: a second script adds its services to those of the first.
if _G.kelo_names then
  for number, service in pairs(names.services) do _G.kelo_names.services[number] = service end
  return
end
_G.kelo_names = names

local kTypes = { [0] = "bool", "u32", "u64", "addr6", "string", "message", "raw" }
local kSpaces = { [0x00] = "", [0xfd] = "local.", [0xfe] = "std.", [0xff] = "sys." }
local kFixed = { bool = 0, u32 = 4, u64 = 8, addr6 = 16 }
local kShort = { u32 = true, string = true, message = true, raw = true }
local kDeepest = 16
local kReply = 2

local kelo = Proto("kelo", "Kelo message")
local shown = {
  length = ProtoField.uint32("kelo.length", "Length of the body"),
  sender = ProtoField.string("kelo.sender", "Sender"),
  service = ProtoField.string("kelo.service", "Service whose fields these are"),
  kind = ProtoField.string("kelo.kind", "Kind"),
  to = ProtoField.string("kelo.to", "To"),
  from = ProtoField.string("kelo.from", "From"),
  command = ProtoField.string("kelo.command", "Command"),
  request = ProtoField.uint32("kelo.request", "Request"),
  error = ProtoField.string("kelo.error", "Error"),
  control = ProtoField.string("kelo.control", "Control"),
  user = ProtoField.string("kelo.user", "User"),
  field = ProtoField.string("kelo.field", "Field"),
  name = ProtoField.string("kelo.name", "Name"),
  value = ProtoField.string("kelo.value", "Value"),
}
kelo.fields = shown
local wrong = ProtoExpert.new("kelo.malformed", "Malformed message", expert.group.MALFORMED, expert.severity.ERROR)
kelo.experts = { wrong }
local interfaceName = Field.new("frame.interface_name")

-- --- Reading.  A cursor over the bytes that were captured, of as many as there were.

local Malformed = {}
local CutOff = {}

-- The next bytes, which there have to be.
local function take(cursor, count)
  if cursor.at + count > cursor.stop then error(Malformed) end
  if cursor.at + count > cursor.bytes:len() then error(CutOff) end
  local range = count > 0 and cursor.bytes(cursor.at, count)
  cursor.at = cursor.at + count
  return range
end

local function number(cursor, size)
  return take(cursor, size):le_uint()
end

-- Without what a terminal would act on.
local function plain(range)
  if not range then return "" end
  return (range:raw():gsub("[%c\127]", function(c) return string.format("\\x%02x", c:byte()) end))
end

local function hexadecimal(range)
  return range and (range:bytes():tohex(true):gsub("(..)", "%1:"):sub(1, -2)) or ""
end

local function addressText(range)
  local mapped = range(0, 12):bytes():tohex(true) == "00000000000000000000ffff"
  return tostring(mapped and range(12, 4):ipv4() or range:ipv6())
end

-- One value: a text, a number where it is one, and the bytes of a message.
local function readValue(cursor, kind, size)
  local range = take(cursor, size)
  if kind == "u32" then
    local value = range:le_uint()
    return tostring(value), value
  end
  if kind == "u64" then return tostring(range:le_uint64()) end
  if kind == "addr6" then return addressText(range) end
  if kind == "string" then return plain(range) end
  if kind == "message" then return size .. " bytes", nil, { from = cursor.at - size, stop = cursor.at } end
  return hexadecimal(range)
end

local function readElement(cursor, kind)
  if kind == "bool" then return take(cursor, 1):le_uint() ~= 0 and "true" or "false" end
  return readValue(cursor, kind, kFixed[kind] or number(cursor, 2))
end

-- The next record: its id without the flag, its type, and its values, each {text, number, bytes of a message}.
local function readRecord(cursor)
  local begin = cursor.at
  local word = number(cursor, 4)
  local flag = bit32.btest(word, 0x01000000)
  local id = bit32.band(word, 0xfeffffff)
  local kind = kTypes[bit32.band(bit32.rshift(word, 27), 0xf)]
  if not kind then error(Malformed) end
  local record = { id = id, begin = begin, kind = kind, isArray = bit32.btest(word, 0x80000000), values = {} }
  if record.isArray then
    for _ = 1, number(cursor, 2) do record.values[#record.values + 1] = { readElement(cursor, kind) } end
  elseif kind == "bool" then
    record.values[1] = { flag and "true" or "false" }
  elseif kFixed[kind] then
    record.values[1] = { readValue(cursor, kind, flag and kShort[kind] and 1 or kFixed[kind]) }
  else
    record.values[1] = { readValue(cursor, kind, number(cursor, flag and 1 or 2)) }
  end
  record.stop = cursor.at
  return record
end

-- All records of a message up to where it ends; and what was wrong behind them, if anything.
local function readMessage(bytes, from, stop)
  local cursor = { bytes = bytes, at = from, stop = stop }
  local records = {}
  local ok, problem = pcall(function()
    if take(cursor, 2):uint() ~= 0x4d32 then error(Malformed) end
    while cursor.at < cursor.stop do records[#records + 1] = readRecord(cursor) end
  end)
  if ok then return records end
  if problem ~= Malformed and problem ~= CutOff then error(problem, 0) end
  return records, problem, cursor.at
end

-- --- Names.

local function fieldText(record)
  local space = bit32.band(bit32.rshift(record.id, 16), 0xff)
  return record.kind .. (record.isArray and "[]" or "") .. ":" .. (kSpaces[space] or string.format("0x%02x.", space)) ..
    bit32.band(record.id, 0xffff)
end

-- The field of a service, or of another one's that takes part.
local function described(id, owners)
  for _, owner in ipairs(owners) do
    if owner.fields[id] then return owner.fields[id] end
  end
end

local function commandText(code, owner, handler)
  local own = owner and owner.commands[handler]
  return own and own[code] or names.commands[code] or string.format("0x%x", code)
end

-- From where a reply finds its way; it begins inside the sender.
local function insideText(values)
  local hops = {}
  for index, value in ipairs(values) do hops[index] = value[1] end
  return table.concat(hops, ".")
end

local function pathText(values)
  local hops = {}
  for index, value in ipairs(values) do
    local service = index == 1 and names.services[value[2]]
    hops[index] = service and service.name or value[1]
  end
  return table.concat(hops, ".")
end

-- The service at the other end of an interface: its name there, and its number.
local function senderOf()
  local name = interfaceName()
  name = name and tostring(name)
  return name, name and tonumber(name:match("%((%d+)%)$"))
end

-- What the system's own fields say.
local function headOf(records)
  local head = {}
  for _, record in ipairs(records) do
    local name = names.fields[record.id]
    if name and record.values[1] then head[name] = record.isArray and record.values or record.values[1] end
  end
  return head
end

local function numberIn(value) return value and value[2] end

local function isReply(head) return numberIn(head.SYS_TYPE) == kReply end

local function valueOf(records, name)
  for _, record in ipairs(records) do
    local field = names.controlFields[record.id]
    if field and field.name == name and record.values[1] then return record.values[1][2] end
  end
end

-- Who describes the fields of a message, the likelier one first: of a request the receiver, of all others the sender.  A
-- registration has fields of its own, and in it the settings of the service.
local function ownersOf(head, sender, records)
  if head.SYS_CTRL then
    local service = names.services[valueOf(records, "READY_ID") or -1]
    return { { fields = names.controlFields, commands = {} }, service and { fields = service.settings } }
  end
  local receiver = head.SYS_TO and numberIn(head.SYS_TO[1])
  local isRequest = not isReply(head) and (head.SYS_REQID or head.SYS_REPLYEXP)
  local owners = {}
  for _, id in ipairs(isRequest and { receiver or -1, sender or -1 } or { sender or -1, receiver or -1 }) do
    owners[#owners + 1] = names.services[id]
  end
  return owners, isRequest
end

-- --- Showing.

local showMessage

local function showRecord(bytes, tree, record, owners, depth)
  local field = described(record.id, owners)
  local name = field and field.name or names.fields[record.id] or fieldText(record)
  local texts = {}
  for index, value in ipairs(record.values) do
    texts[index] = field and field.values and value[2] and field.values[value[2]] or value[1]
    if field and field.secret then texts[index] = "(secret)" end
  end
  local text = table.concat(texts, ", ")
  if record.isArray then text = "[" .. text .. "]" end
  if field and field.unit then text = text .. " " .. field.unit end
  local range = bytes(record.begin, record.stop - record.begin)
  local branch = tree:add(shown.field, range, name .. " = " .. text)
  branch:set_text(name .. " = " .. text)
  branch:add(shown.name, range, name)
  branch:add(shown.value, range, text)
  if field and field.secret then return end
  for _, value in ipairs(record.values) do
    if value[3] and depth < kDeepest then
      showMessage(bytes, branch:add(range, "message"), value[3].from, value[3].stop, owners, depth + 1)
    end
  end
end

function showMessage(bytes, tree, from, stop, owners, depth)
  local records, problem, at = readMessage(bytes, from, stop)
  for _, record in ipairs(records) do showRecord(bytes, tree, record, owners, depth) end
  if problem == Malformed then tree:add_proto_expert_info(wrong, "nothing that is a record at byte " .. at) end
  if problem == CutOff then tree:append_text(" (cut by the capture)") end
end

local function kindOf(head, isRequest)
  if head.SYS_CTRL then return "control" end
  if head.SYS_STATUS and numberIn(head.SYS_STATUS) == 2 then return "error" end
  if isReply(head) then return "reply" end
  return isRequest and "request" or "message"
end

-- What the list of packets says of it.
local function summary(head, kind, command)
  if kind == "control" then return names.controls[numberIn(head.SYS_CTRL)] or "control " .. head.SYS_CTRL[1] end
  if kind == "error" then
    local code = numberIn(head.SYS_ERRNO) or 0
    local text = head.SYS_ERRSTR and head.SYS_ERRSTR[1] ~= "" and ": " .. head.SYS_ERRSTR[1] or ""
    return "error " .. (names.errors[code] or string.format("0x%x", code)) .. text
  end
  if kind == "reply" then return head.STD_OBJS and #head.STD_OBJS .. " objects" or "reply" end
  local id = head.STD_ID and " id=" .. head.STD_ID[1] or ""
  return command .. id
end

function kelo.dissector(buffer, packet, root)
  packet.cols.protocol = "KELO"
  local tree = root:add(kelo, buffer())
  if buffer:reported_len() < 4 then
    tree:add_proto_expert_info(wrong, "fewer bytes than a length has")
    return
  end
  if buffer:len() < 4 then return end
  local length = buffer(0, 4):le_uint()
  tree:add_le(shown.length, buffer(0, 4))
  if length + 4 ~= buffer:reported_len() then
    tree:add_proto_expert_info(wrong, "the length says " .. length .. " bytes")
    return
  end
  local stop = 4 + length
  local records = readMessage(buffer, 4, stop)
  local head = headOf(records)
  local senderName, sender = senderOf()
  local owners, isRequest = ownersOf(head, sender, records)
  local kind = kindOf(head, isRequest)
  local handler = head.SYS_TO and numberIn(head.SYS_TO[2]) or 0
  local command = commandText(numberIn(head.SYS_CMD) or 0, owners[1], handler)
  local function add(field, text) if text then tree:add(field, text):set_generated() end end
  add(shown.sender, senderName)
  add(shown.service, owners[1] and owners[1].name)
  add(shown.kind, kind)
  add(shown.to, head.SYS_TO and pathText(head.SYS_TO))
  add(shown.from, head.SYS_FROM and insideText(head.SYS_FROM))
  add(shown.command, (kind == "request" or kind == "message") and command or nil)
  add(shown.request, numberIn(head.SYS_REQID))
  add(shown.error, kind == "error" and (names.errors[numberIn(head.SYS_ERRNO) or 0] or "unknown") or nil)
  add(shown.control, kind == "control" and (names.controls[numberIn(head.SYS_CTRL)] or head.SYS_CTRL[1]) or nil)
  add(shown.user, head.SYS_USER and head.SYS_USER[1])
  showMessage(buffer, tree, 4, stop, owners, 0)
  packet.cols.src = senderName or "?"
  packet.cols.dst = head.SYS_TO and pathText(head.SYS_TO) or "?"
  packet.cols.info = summary(head, kind, command)
end

DissectorTable.get("wtap_encap"):add(wtap.USER0, kelo)
