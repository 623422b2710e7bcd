-- Wireshark dissector for the link between a unit and its host. It reads
--   recordings ("vexa-host record"): pcapng with link type 147 (USER0), one frame a record;
--   captures of the USB bus (usbmon, USBPcap): the bulk transfers of a unit.
-- What the unit sends is cut into frames with a header of 8 bytes, what the host sends is bare packets. A
-- packet may begin in one frame and end in the next. On the bus a frame may also begin and end
-- anywhere in a transfer.
--
-- Install: copy to the folder of personal Lua plugins (Help > About > Folders), or give it with
--   tshark -X lua_script:vexa.lua -r session.pcapng

local vexa = Proto("vexa", "VEXA host link")
local vexa_bus = Proto("vexa_bus", "VEXA host link, configuration of USB devices")

vexa.prefs.usb_ids = Pref.string("USB ids of units", "1209:0001",
    "VENDOR:PRODUCT in hex, several with commas between. A unit with another id is known by its first" ..
    " initial sync or frame header.")

local kHeaderSize = 4
local kTunnelHeaderSize = 8
local kFrameHeaderSize = 8
local kMaxFramePayload = 30000
local kClassCommand, kClassTunnel, kClassDaq = 0x40, 0x60, 0xA0
local kAcknowledge, kError, kSyncReply = 0x98, 0x9C, 0xB8
local kSyncCommand = 26
local kOpen, kClose, kReopen, kQuery, kTakeOver = 0x70, 0x71, 0x72, 0x73, 0x74
local kSyncSize, kSyncReplySize, kReplySize = 25, 26, 7

local kSignature = "\x05\x4A\x06\x49\x07\x48\x08\x47\x09\x46\x0A\x45\x0B\x44\x0C\x43\x0D\x42\x0E\x41"
local kReplySignature =
    "\x55\xAA\x56\xA9\x57\xA8\x58\xA7\x59\xA6\x5A\xA5\x5B\xA4\x5C\xA3\x5D\xA2\x5E\xA1"

local kCommandNames = {
    [kOpen] = "open child",
    [kClose] = "close child",
    [kReopen] = "open controller",
    [kQuery] = "query DAQ application",
    [kTakeOver] = "take DAQ over",
    [kSyncCommand] = "initial sync",
}
local kErrorNames = {
    [48] = "the DAQ link is closed",
    [49] = "the controller does not know this command",
    [50] = "ten children are open, or the session with the DAQ application has failed",
    [54] = "the child could not be opened or closed",
    [57] = "the DAQ did not come up during the take-over",
    [59] = "the DAQ did not come up when the controller was opened",
}
-- By the top three bits of the type.
local kClassNames = {
    [2] = "command to the multiplexer or the DAQ",
    [3] = "tunnel packet",
    [4] = "reply of the service",
    [5] = "from the DAQ, or initial-sync reply",
}
local kTypeNames = {
    [kClassCommand] = "command",
    [kClassTunnel] = "tunnel",
    [kAcknowledge] = "acknowledgement",
    [kError] = "error",
    [kClassDaq] = "DAQ packet",
    [kSyncReply] = "initial-sync reply, or reply of the DAQ",
}

local f = {
    frame_length = ProtoField.uint32("vexa.frame.length", "Payload length", base.DEC),
    frame_magic = ProtoField.string("vexa.frame.magic", "Magic"),
    frame_begun = ProtoField.bytes("vexa.frame.begun",
                                   "Beginning of a frame header that ends in a later transfer"),
    direction = ProtoField.string("vexa.direction", "Direction"),
    packet = ProtoField.bytes("vexa.packet", "Packet"),
    inner = ProtoField.bytes("vexa.inner", "Inner packet"),
    kind = ProtoField.string("vexa.kind", "Kind"),
    type = ProtoField.uint8("vexa.type", "Type", base.HEX, kTypeNames),
    class = ProtoField.uint8("vexa.class", "Class", base.HEX, kClassNames, 0xE0),
    length = ProtoField.uint8("vexa.length", "Length", base.DEC),
    sequence = ProtoField.uint8("vexa.sequence", "Sequence", base.DEC),
    checksum = ProtoField.uint8("vexa.checksum", "Checksum", base.HEX),
    checksum_right = ProtoField.bool("vexa.checksum.right", "Checksum right"),
    child = ProtoField.uint32("vexa.child", "Child", base.HEX),
    child_name = ProtoField.string("vexa.child.name", "Device asked for"),
    command = ProtoField.uint8("vexa.command", "Command", base.HEX, kCommandNames),
    request_sequence = ProtoField.uint8("vexa.request_sequence", "Sequence of the request", base.DEC),
    target = ProtoField.uint32("vexa.target", "Child to open or close", base.HEX),
    name_length = ProtoField.uint8("vexa.name.length", "Name length, zero byte included", base.DEC),
    name = ProtoField.string("vexa.name", "Name"),
    with_daq = ProtoField.bool("vexa.with_daq", "Bring the DAQ link up"),
    error = ProtoField.uint8("vexa.error", "Error code", base.DEC, kErrorNames),
    result = ProtoField.uint8("vexa.result", "Result", base.DEC),
    signature = ProtoField.bytes("vexa.signature", "Signature"),
    data = ProtoField.bytes("vexa.data", "Data"),
    unfinished = ProtoField.bytes("vexa.unfinished", "Beginning of a packet that ends in a later frame"),
    lost = ProtoField.bytes("vexa.lost", "Bytes that make no packet"),
}
vexa.fields = f

local e = {
    checksum = ProtoExpert.new("vexa.expert.checksum", "Wrong checksum", expert.group.CHECKSUM,
                               expert.severity.WARN),
    refused = ProtoExpert.new("vexa.expert.refused", "The unit reports an error",
                              expert.group.RESPONSE_CODE, expert.severity.NOTE),
    lost = ProtoExpert.new("vexa.expert.lost", "Bytes that make no packet", expert.group.MALFORMED,
                           expert.severity.WARN),
    interrupted = ProtoExpert.new("vexa.expert.interrupted", "Packet cut off by an initial sync",
                                  expert.group.SEQUENCE, expert.severity.NOTE),
    frame = ProtoExpert.new("vexa.expert.frame", "Bad frame header", expert.group.MALFORMED,
                            expert.severity.ERROR),
    truncated = ProtoExpert.new("vexa.expert.truncated", "The capture has only a part of this transfer",
                                expert.group.UNDECODED, expert.severity.WARN),
}
vexa.experts = e

local frame_comment = Field.new("frame.comment")

-- The conversations so far, during the first pass: that of a recording under "", that of a device on
-- a bus under "BUS.DEVICE". `prefix`: bytes of a packet that began earlier, by direction. `header`: the
-- first bytes of a frame header of the unit. `left`: bytes of its current frame still to come.
local conversations = {}

-- What each captured frame needs of its conversation: later passes visit the frames in any order.
local frames = {}

local function Conversation(key)
    if not conversations[key] then
        conversations[key] = {
            prefix = {[true] = "", [false] = ""},
            header = "",
            left = 0,
            controller = nil,
            names = {},
        }
    end
    return conversations[key]
end

function vexa.init()
    frames = {}
    conversations = {}
end

local function Checksum(bytes)
    local length = bytes:byte(2)
    local sum = bytes:byte(1) + length + bytes:byte(3)
    if length >= 5 and length <= 253 then
        for i = 5, length do sum = sum + bytes:byte(i) end
    end
    return sum % 256
end

local function HasRightChecksum(bytes) return Checksum(bytes) == bytes:byte(4) end

local function Class(type) return type - type % 32 end

-- 32 bits, little-endian, `at` from 0.
local function U32(bytes, at)
    local a, b, c, d = bytes:byte(at + 1, at + 4)
    return a + b * 0x100 + c * 0x10000 + d * 0x1000000
end

-- Offset (from 0) of the first valid sync packet in `bytes` at or after `from`: an initial sync when
-- the bytes go to the unit, else its reply.
local function FindSync(bytes, from, to_unit)
    local signature = to_unit and kSignature or kReplySignature
    local before = to_unit and 5 or 6
    local size = to_unit and kSyncSize or kSyncReplySize
    local class = to_unit and kClassCommand or kClassDaq
    local at = from
    while true do
        local found = bytes:find(signature, at + before + 1, true)
        if not found then return nil end
        local start = found - 1 - before
        local packet = bytes:sub(start + 1, start + size)
        if Class(packet:byte(1)) == class and packet:byte(2) == size and
            packet:byte(5) == kSyncCommand and HasRightChecksum(packet) then
            return start
        end
        at = start + 1
    end
end

-- Cuts `bytes` into pieces {kind, first, size}: "packet", "lost" (no packet), "interrupted" (cut off by
-- an initial sync) and "unfinished" (ends in a later frame). A unit searches only for initial
-- syncs; in what a unit sends, only a length byte below 4 is a fault.
local function Cut(bytes, to_unit)
    local pieces = {}
    local at = 0
    local sync = FindSync(bytes, 0, to_unit)
    while at < #bytes do
        local length = #bytes - at >= 2 and bytes:byte(at + 2) or 255
        if to_unit then length = math.max(length, kHeaderSize) end
        if sync and sync < at then sync = FindSync(bytes, at, to_unit) end
        if to_unit and sync and sync > at and sync < at + length then
            table.insert(pieces, {"interrupted", at, sync - at})
            at = sync
        elseif length < kHeaderSize then
            local size = (sync or #bytes) - at
            table.insert(pieces, {"lost", at, size})
            at = at + size
        elseif at + length > #bytes then
            table.insert(pieces, {"unfinished", at, #bytes - at})
            at = #bytes
        else
            table.insert(pieces, {"packet", at, length})
            at = at + length
        end
    end
    return pieces
end

local function Text(bytes)
    local text = bytes:match("^[^%z]*")
    return (text:gsub("[^ -~]", "?"))
end

local function IsReply(bytes)
    return #bytes == kReplySize and bytes:byte(2) == kReplySize and
        (bytes:byte(1) == kAcknowledge or bytes:byte(1) == kError)
end

-- True for an inner packet that opens the controller, with any id.
local function ReopensController(inner)
    local command = inner:byte(5)
    if command == kReopen then return true end
    return command == kOpen and inner:byte(10) == 11 and inner:sub(11, 20) == "Controller"
end

-- Kind of a packet, with the knowledge of its frame.
local function KindOf(bytes, to_unit, knowledge)
    local type = bytes:byte(1)
    local class = Class(type)
    if class == kClassTunnel and #bytes >= kTunnelHeaderSize then
        local id = U32(bytes, 4)
        local inner = bytes:sub(kTunnelHeaderSize + 1)
        if to_unit then
            local command = ReopensController(inner) or id == knowledge.controller
            return command and #inner > kHeaderSize and "controller command" or "child data"
        end
        local of_controller = id == knowledge.controller or (id == 0 and not knowledge.names[0])
        return of_controller and IsReply(inner) and "controller reply" or "child data"
    end
    if to_unit then
        if class ~= kClassCommand or #bytes < 5 then return "other" end
        if #bytes == kSyncSize and bytes:byte(5) == kSyncCommand then return "initial sync" end
        return "multiplexer command"
    end
    if #bytes == kSyncReplySize and bytes:byte(5) == kSyncCommand and
        bytes:sub(7) == kReplySignature then
        return "initial-sync reply"
    end
    if IsReply(bytes) then return "multiplexer reply" end
    if class == kClassDaq then
        return type == kSyncReply and #bytes == kReplySize and "DAQ reply" or "DAQ packet"
    end
    return "other"
end

-- Updates the conversation from a valid packet to the unit.
local function Learn(bytes, conversation)
    local kind = KindOf(bytes, true, conversation)
    if kind ~= "controller command" or #bytes < kTunnelHeaderSize + 9 then return end
    local inner = bytes:sub(kTunnelHeaderSize + 1)
    local id = U32(inner, 5)
    if ReopensController(inner) then
        conversation.controller = id
        conversation.names = {}
    elseif inner:byte(5) == kOpen and not conversation.names[id] then
        conversation.names[id] = Text(inner:sub(11))
    end
end

local function Copy(from)
    local to = {}
    for key, value in pairs(from) do to[key] = value end
    return to
end

local function CommandName(command)
    return kCommandNames[command] or string.format("command 0x%02X", command)
end

local function AddCommand(tree, range, bytes)
    local command = bytes:byte(5)
    tree:add(f.command, range(4, 1))
    local words = CommandName(command)
    if #bytes >= 9 and (command == kOpen or command == kClose or command == kReopen) then
        tree:add_le(f.target, range(5, 4))
        words = string.format("%s 0x%X", words, U32(bytes, 5))
    end
    if #bytes >= 10 and command == kReopen then
        tree:add(f.with_daq, range(9, 1), bytes:byte(10) ~= 0)
        words = words .. (bytes:byte(10) ~= 0 and ", with DAQ" or ", without DAQ")
    elseif #bytes >= 11 and command == kOpen then
        tree:add(f.name_length, range(9, 1))
        local name = Text(bytes:sub(11, 10 + bytes:byte(10)))
        tree:add(f.name, range(10), name)
        words = string.format('%s "%s"', words, name)
    end
    return words
end

local function AddReply(tree, range, bytes)
    local command, code = bytes:byte(5), bytes:byte(7)
    tree:add(f.command, range(4, 1))
    tree:add(f.request_sequence, range(5, 1))
    local words = string.format("%s (request %d): ", CommandName(command), bytes:byte(6))
    if bytes:byte(1) == kError then
        local item = tree:add(f.error, range(6, 1))
        item:add_proto_expert_info(e.refused)
        return words .. string.format("error %d, %s", code, kErrorNames[code] or "unknown error")
    end
    tree:add(f.result, range(6, 1))
    return words .. (command == kQuery and "result " .. code or "done")
end

local function AddHeader(tree, range, bytes)
    tree:add(f.type, range(0, 1))
    tree:add(f.class, range(0, 1))
    tree:add(f.length, range(1, 1))
    tree:add(f.sequence, range(2, 1))
    local item = tree:add(f.checksum, range(3, 1))
    local right = #bytes == bytes:byte(2) and HasRightChecksum(bytes)
    tree:add(f.checksum_right, range(3, 1), right):set_generated()
    if not right then
        if #bytes == bytes:byte(2) then
            item:append_text(string.format(", should be 0x%02x", Checksum(bytes)))
        end
        item:add_proto_expert_info(e.checksum)
    end
    return right
end

local function AddTunnel(tree, range, bytes, kind, knowledge)
    local id = U32(bytes, 4)
    tree:add_le(f.child, range(4, 4))
    local inner = bytes:sub(kTunnelHeaderSize + 1)
    if kind == "child data" or #inner < kHeaderSize then
        local name = knowledge.names[id]
        if name then tree:add(f.child_name, range(4, 4), name):set_generated() end
        if #inner > 0 then tree:add(f.data, range(kTunnelHeaderSize)) end
        return string.format("%d bytes, child 0x%X%s", #inner, id,
                             name and ' "' .. name .. '"' or "")
    end
    local inner_range = range(kTunnelHeaderSize)
    local inner_tree = tree:add(f.inner, inner_range):set_text("Inner packet")
    AddHeader(inner_tree, inner_range, inner)
    if kind == "controller reply" then return AddReply(inner_tree, inner_range, inner) end
    return AddCommand(inner_tree, inner_range, inner)
end

-- Adds a packet to the tree and returns it in words.
local function AddPacket(tree, range, bytes, to_unit, knowledge)
    local kind = KindOf(bytes, to_unit, knowledge)
    local item = tree:add(f.packet, range)
    local right = AddHeader(item, range, bytes)
    item:add(f.kind, range, kind):set_generated()
    local words = kind
    if Class(bytes:byte(1)) == kClassTunnel and #bytes >= kTunnelHeaderSize then
        words = AddTunnel(item, range, bytes, kind, knowledge)
    elseif kind == "initial sync" then
        item:add(f.command, range(4, 1))
        item:add(f.signature, range(5))
    elseif kind == "initial-sync reply" then
        item:add(f.command, range(4, 1))
        item:add(f.request_sequence, range(5, 1))
        item:add(f.signature, range(6))
        words = string.format("%s (request %d)", kind, bytes:byte(6))
    elseif kind == "multiplexer reply" or kind == "DAQ reply" then
        words = "multiplexer " .. AddReply(item, range, bytes)
    elseif kind == "multiplexer command" then
        item:add(f.command, range(4, 1))
        if #bytes > 5 then item:add(f.data, range(5)) end
        words = string.format("%s 0x%02X", kind, bytes:byte(5))
    elseif #bytes > kHeaderSize then
        item:add(f.data, range(kHeaderSize))
        words = string.format("%s, %d bytes", kind, #bytes)
    end
    if not right then words = words .. " (checksum WRONG)" end
    item:set_text(words)
    return words
end

-- Adds the pieces of `tvb`, which holds `bytes`, and returns the text of the Info column.
local function AddPieces(tree, tvb, bytes, to_unit, knowledge)
    local words = {}
    for _, piece in ipairs(Cut(bytes, to_unit)) do
        local kind, first, size = table.unpack(piece)
        local range = tvb(first, size)
        if kind == "packet" then
            local packet = bytes:sub(first + 1, first + size)
            table.insert(words, AddPacket(tree, range, packet, to_unit, knowledge))
        elseif kind == "unfinished" then
            tree:add(f.unfinished, range)
            table.insert(words, "beginning of a packet")
        else
            tree:add(f.lost, range):add_proto_expert_info(e[kind])
            table.insert(words, size .. (size == 1 and " byte" or " bytes") .. " that make no packet")
        end
    end
    return words
end

local function IsFrameHeader(bytes)
    if #bytes < kFrameHeaderSize or bytes:sub(5, 8) ~= "U012" then return false end
    local length = U32(bytes, 0)
    return length >= 1 and length <= kMaxFramePayload
end

-- Takes the frame headers out of `bytes`, which the unit sent, after a frame header's first bytes
-- `header` or with `left` bytes of a frame to come. Returns
--   headers  {first, size, the whole header, whether it is good}, the last of them maybe unfinished
--   payload  {first, size} of each piece
--   header, left  for what comes next
-- Nothing follows a bad header: what the unit sends next begins with a header again.
local function Deframe(bytes, header, left)
    local headers, payload = {}, {}
    local at = 0
    while at < #bytes do
        local size
        if left > 0 then
            size = math.min(left, #bytes - at)
            left = left - size
            table.insert(payload, {at, size})
        else
            size = math.min(kFrameHeaderSize - #header, #bytes - at)
            header = header .. bytes:sub(at + 1, at + size)
            local complete = #header == kFrameHeaderSize
            local good = not complete or IsFrameHeader(header)
            table.insert(headers, {at, size, header, good})
            if not good then return headers, payload, "", 0 end
            if complete then header, left = "", U32(header, 0) end
        end
        at = at + size
    end
    return headers, payload, header, left
end

local function Joined(bytes, pieces)
    local parts = {}
    for _, piece in ipairs(pieces) do
        table.insert(parts, bytes:sub(piece[1] + 1, piece[1] + piece[2]))
    end
    return table.concat(parts)
end

-- The pieces of `bytes` that belong to packets, and its frame headers. A record of a recording is
-- exactly one frame.
local function Split(bytes, to_unit, is_recording, state)
    if to_unit then return {{0, #bytes}}, {} end
    local headers, payload, header, left = Deframe(bytes, state.header, state.left)
    if is_recording and (#headers ~= 1 or #header > 0 or left > 0) then
        headers = {{0, math.min(kFrameHeaderSize, #bytes), bytes:sub(1, kFrameHeaderSize), false}}
        payload, header, left = {}, "", 0
    end
    return payload, headers, header, left
end

-- First pass: stores what this captured frame needs in later passes, and advances the conversation
-- past it.
local function FirstPass(number, bytes, to_unit, key)
    local conversation = Conversation(key)
    local state = {
        prefix = conversation.prefix[to_unit],
        header = conversation.header,
        left = conversation.left,
    }
    local payload, headers, header, left = Split(bytes, to_unit, key == "", state)
    if not to_unit then conversation.header, conversation.left = header, left end
    local packets = state.prefix .. Joined(bytes, payload)
    conversation.prefix[to_unit] = ""
    for _, piece in ipairs(Cut(packets, to_unit)) do
        local kind, first, size = table.unpack(piece)
        local part = packets:sub(first + 1, first + size)
        if kind == "unfinished" then
            conversation.prefix[to_unit] = part
        elseif kind == "packet" and to_unit and HasRightChecksum(part) then
            Learn(part, conversation)
            if KindOf(part, true, conversation) == "initial sync" then
                conversation.prefix[false] = ""
            end
        end
    end
    local last = headers[#headers]
    if last and not last[4] then conversation.prefix[false] = "" end
    state.controller = conversation.controller
    state.names = Copy(conversation.names)
    frames[number] = state
end

-- Adds a frame header, or as much of it as there is, and returns it in words.
local function AddFrameHeader(tree, tvb, header)
    local first, size, bytes, good = table.unpack(header)
    if good and #bytes < kFrameHeaderSize then
        tree:add(f.frame_begun, tvb(first, size))
        return "beginning of a frame header"
    end
    local range = tvb(first, size)
    if size < #bytes then range = ByteArray.new(bytes, true):tvb("Frame header")() end
    local item = tree:add(vexa, range, "Frame header")
    if #bytes == kFrameHeaderSize then
        item:add_le(f.frame_length, range(0, 4))
        item:add(f.frame_magic, range(4, 4))
    end
    if good then return string.format("frame header, %d bytes follow", U32(bytes, 0)) end
    item:add_proto_expert_info(e.frame)
    return "bad frame header"
end

-- The device of a transfer on a USB bus as "BUS.DEVICE", its endpoint and whether the host sent it;
-- nothing for a recording. What the host sends stands in the submission, what the unit sends in
-- the completion: so the sender of the record is that of its bytes.
local function BusDevice(pinfo)
    local source, destination = tostring(pinfo.src), tostring(pinfo.dst)
    local to_unit = source == "host"
    if not to_unit and destination ~= "host" then return nil end
    local key, endpoint = (to_unit and destination or source):match("^(%d+%.%d+)%.(%d+)$")
    return key, endpoint, to_unit
end

-- Adds the frame headers and packets of `tvb` and returns them in words.
local function AddAll(tree, tvb, to_unit, is_recording, knowledge)
    local bytes = tvb:raw()
    local payload, headers = Split(bytes, to_unit, is_recording, knowledge)
    local header_words, is_good
    for _, header in ipairs(headers) do
        header_words, is_good = AddFrameHeader(tree, tvb, header), header[4]
    end
    local words = {}
    local packets = knowledge.prefix .. Joined(bytes, payload)
    if #payload == 1 and knowledge.prefix == "" then
        local whole = tvb(table.unpack(payload[1])):tvb()
        words = AddPieces(tree, whole, packets, to_unit, knowledge)
    elseif #payload > 0 then
        local whole = ByteArray.new(packets, true):tvb("Packets")
        words = AddPieces(tree, whole, packets, to_unit, knowledge)
    end
    -- A good header gets words only where nothing else does.
    if header_words and (#words == 0 or not is_good) then table.insert(words, header_words) end
    return words
end

-- `key` tells the conversation.
local function Dissect(tvb, pinfo, root, key, to_unit)
    local tree = root:add(vexa, tvb())
    tree:add(f.direction, to_unit and "host to unit" or "unit to host"):set_generated()
    local is_recording = key == ""
    local is_truncated = tvb:len() < tvb:reported_len()
    if is_truncated then tree:add_proto_expert_info(e.truncated) end
    if not pinfo.visited or not frames[pinfo.number] then
        FirstPass(pinfo.number, tvb:raw(), to_unit, key)
        if is_truncated then conversations[key] = nil end  -- what comes next does not go on here
    end
    local words = AddAll(tree, tvb, to_unit, is_recording, frames[pinfo.number])
    pinfo.cols.protocol = "VEXA"
    pinfo.cols.info = table.concat(words, "; ")
    return tvb:len()
end

-- A record of a recording: a frame of the unit, bytes of the host, or an event, which nobody has sent.
local function DissectRecord(tvb, pinfo, root)
    local key = ""
    if tvb:len() == 0 then
        local comment = frame_comment()
        pinfo.cols.protocol = "VEXA"
        pinfo.cols.info = comment and tostring(comment) or "no bytes"
        if not pinfo.visited then conversations[key] = nil end
        return 0
    end
    local to_unit = pinfo.p2p_dir ~= 1
    pinfo.cols.src = to_unit and "host" or "unit"
    pinfo.cols.dst = to_unit and "unit" or "host"
    return Dissect(tvb, pinfo, root, key, to_unit)
end

function vexa.dissector(tvb, pinfo, root)
    local key, endpoint, to_unit = BusDevice(pinfo)
    if not key then return DissectRecord(tvb, pinfo, root) end
    if endpoint == "0" then return 0 end  -- the answer to a control request
    return Dissect(tvb, pinfo, root, key, to_unit)
end

DissectorTable.get("wtap_encap"):add((wtap_encaps or wtap).USER0, vexa)

-- --- The USB bus

-- Wireshark knows a unit by its id when the capture has seen the unit come. When it has not, or the
-- unit has another id, the first initial sync or frame header tells.
local function DissectUnknown(tvb, pinfo, root)
    local key, endpoint, to_unit = BusDevice(pinfo)
    if not key or endpoint == "0" or tvb:len() == 0 then return false end
    local known = conversations[key]
    if pinfo.visited then known = frames[pinfo.number] end
    if not known then
        local bytes = tvb:raw()
        if to_unit and not FindSync(bytes, 0, true) then return false end
        if not to_unit and not IsFrameHeader(bytes) then return false end
    end
    Dissect(tvb, pinfo, root, key, to_unit)
    return true
end

vexa:register_heuristic("usb.bulk", DissectUnknown)

local products = {}

local function RegisterIds()
    local by_id = DissectorTable.get("usb.product")
    for _, product in ipairs(products) do by_id:remove(product, vexa) end
    products = {}
    for vendor, product in vexa.prefs.usb_ids:gmatch("(%x+):(%x+)") do
        local id = tonumber(vendor, 16) * 0x10000 + tonumber(product, 16)
        table.insert(products, id)
        by_id:add(id, vexa)
    end
end

vexa.prefs_changed = RegisterIds
RegisterIds()
DissectorTable.get("usb.device"):add_for_decode_as(vexa)

-- The 8 bytes of the control request in a captured record of a USB bus, or nothing.
local function ControlRequest(tvb)
    local kControl = 2
    if tvb:len() >= 48 and tvb(8, 1):uint() == string.byte("S") and tvb(9, 1):uint() == kControl and
        tvb(14, 1):uint() == 0 then
        return tvb(40, 8):raw()  -- usbmon
    end
    local header_size = tvb:len() >= 28 and tvb(0, 2):le_uint() or 0
    if header_size == 28 and tvb(22, 1):uint() == kControl and tvb(27, 1):uint() == 0 and
        tvb:len() >= header_size + 8 then
        return tvb(header_size, 8):raw()  -- USBPcap
    end
end

-- A device that is configured anew, or gets an interface's settings anew, begins a new conversation. No
-- table of dissectors leads to these requests, so this looks at each captured frame.
function vexa_bus.dissector(tvb, pinfo)
    if pinfo.visited or next(conversations) == nil then return end
    local key, endpoint, from_host = BusDevice(pinfo)
    if not from_host or endpoint ~= "0" or not conversations[key] then return end
    local request = ControlRequest(tvb)
    local kSetConfiguration, kSetInterface = "\x00\x09", "\x01\x0B"
    local first = request and request:sub(1, 2)
    if first == kSetConfiguration or first == kSetInterface then conversations[key] = nil end
end

register_postdissector(vexa_bus)
