-- Wireshark dissector for recordings of the link between a unit and its host ("vexa-host record"):
-- pcapng with link type 147 (USER0). What the unit sends is cut into frames with a header of 8 bytes,
-- what the host sends is bare packets; a packet may begin in one frame and end in the next.
--
-- Install: copy to the folder of personal Lua plugins (Help > About > Folders), or give it with
--   tshark -X lua_script:vexa.lua -r session.pcapng

local vexa = Proto("vexa", "VEXA host link")

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
    packet = ProtoField.bytes("vexa.packet", "Packet"),
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
}
vexa.experts = e

local frame_comment = Field.new("frame.comment")

-- State of the conversation at each frame, from the first pass over the capture: later passes visit
-- the frames in any order. `prefix`: bytes of a packet that began in earlier frames.
local frames = {}
local follow = {}  -- the conversation so far, during the first pass

local function Reset()
    follow = {prefix = {[true] = "", [false] = ""}, controller = nil, names = {}}
end

function vexa.init()
    frames = {}
    Reset()
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
local function Learn(bytes)
    local kind = KindOf(bytes, true, follow)
    if kind ~= "controller command" or #bytes < kTunnelHeaderSize + 9 then return end
    local inner = bytes:sub(kTunnelHeaderSize + 1)
    local id = U32(inner, 5)
    if ReopensController(inner) then
        follow.controller = id
        follow.names = {}
    elseif inner:byte(5) == kOpen and not follow.names[id] then
        follow.names[id] = Text(inner:sub(11))
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
    local inner_tree = tree:add(f.packet, inner_range):set_text("Inner packet")
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

-- First pass: stores the state that this frame needs in later passes, and advances the
-- conversation past it.
local function FirstPass(number, payload, to_unit)
    local prefix = follow.prefix[to_unit]
    local bytes = prefix .. payload
    follow.prefix[to_unit] = ""
    for _, piece in ipairs(Cut(bytes, to_unit)) do
        local kind, first, size = table.unpack(piece)
        local part = bytes:sub(first + 1, first + size)
        if kind == "unfinished" then
            follow.prefix[to_unit] = part
        elseif kind == "packet" and to_unit and HasRightChecksum(part) then
            Learn(part)
            if KindOf(part, true, follow) == "initial sync" then follow.prefix[false] = "" end
        end
    end
    frames[number] = {prefix = prefix, controller = follow.controller, names = Copy(follow.names)}
end

local function AddFrameHeader(tree, tvb)
    local header = tree:add(vexa, tvb(0, kFrameHeaderSize), "Frame header")
    header:add_le(f.frame_length, tvb(0, 4))
    header:add(f.frame_magic, tvb(4, 4))
    local length = tvb(0, 4):le_uint()
    local good = tvb(4, 4):string() == "U012" and length >= 1 and length <= kMaxFramePayload and
        length == tvb:len() - kFrameHeaderSize
    if not good then header:add_proto_expert_info(e.frame) end
    return good
end

function vexa.dissector(tvb, pinfo, root)
    pinfo.cols.protocol = "VEXA"
    local to_unit = pinfo.p2p_dir ~= 1
    if tvb:len() == 0 then  -- an event, which nobody has sent
        local comment = frame_comment()
        pinfo.cols.info = comment and tostring(comment) or "no bytes"
        if not pinfo.visited then Reset() end
        return 0
    end
    pinfo.cols.src = to_unit and "host" or "unit"
    pinfo.cols.dst = to_unit and "unit" or "host"

    local tree = root:add(vexa, tvb())
    local payload = tvb
    if not to_unit then
        if tvb:len() < kFrameHeaderSize then
            tree:add_proto_expert_info(e.frame)
            pinfo.cols.info = "bad frame header"
            return tvb:len()
        end
        if not AddFrameHeader(tree, tvb) then
            pinfo.cols.info = "bad frame header"
            return tvb:len()
        end
        payload = tvb(kFrameHeaderSize):tvb()
    end

    local bytes = payload:raw()
    if not pinfo.visited or not frames[pinfo.number] then FirstPass(pinfo.number, bytes, to_unit) end
    local knowledge = frames[pinfo.number]
    if #knowledge.prefix > 0 then
        bytes = knowledge.prefix .. bytes
        payload = ByteArray.new(bytes, true):tvb("Packets")
    end
    local words = AddPieces(tree, payload, bytes, to_unit, knowledge)
    pinfo.cols.info = table.concat(words, "; ")
    return tvb:len()
end

DissectorTable.get("wtap_encap"):add((wtap_encaps or wtap).USER0, vexa)
