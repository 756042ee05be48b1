-- Wireshark dissector for the protocol between device and companion: discovery (UDP 3152, 3153) and the link (TCP
-- 8399). docs/link-protocol.md describes the format and lists the rules (FRAME-1 and so on).

local HEADER = 42        -- bytes: start sequence, checksum, length, type
local MAX_PAYLOAD = 0x100000  -- bytes; a header that announces a longer payload is treated as damaged
local ID_SIZE = 5        -- bytes; in an IdentityMessage, the firmware's version follows the identity
local DEVICE_PORT, COMPANION_PORT, LINK_PORT = 3153, 3152, 8399
local START = ("5A1E9C03D7B24F6681E0C3A95B7D2E4F0C6A18B3E59D7F2041C8A6E3B9D05F17"):gsub("..", function(hex)
    return string.char(tonumber(hex, 16))
end)

local CONTROL, BUTTON, IMAGE, IDENTITY, CONNECT_REQUEST, IDENTITY_REQUEST, DATA = 0, 1, 2, 3, 4, 5, 6
local TYPES = {
    [CONTROL] = "ControlMessage", [BUTTON] = "ButtonMessage", [IMAGE] = "ImageMessage",
    [IDENTITY] = "IdentityMessage", [CONNECT_REQUEST] = "ConnectRequest",
    [IDENTITY_REQUEST] = "IdentityRequest", [DATA] = "DataMessage",
}
local FROM_DEVICE = { [IMAGE] = true, [IDENTITY] = true, [DATA] = true }
local FROM_COMPANION = {
    [CONTROL] = true, [BUTTON] = true, [CONNECT_REQUEST] = true, [IDENTITY_REQUEST] = true, [DATA] = true,
}

local guilink = Proto("guilink", "Guilink")

local fields = {
    start = ProtoField.bytes("guilink.start", "Start sequence"),
    checksum = ProtoField.uint32("guilink.checksum", "Checksum", base.HEX),
    checksum_good = ProtoField.bool("guilink.checksum.good", "Checksum is right"),
    length = ProtoField.uint32("guilink.length", "Length of the payload"),
    type = ProtoField.uint16("guilink.type", "Type", base.DEC, TYPES),
    payload = ProtoField.bytes("guilink.payload", "Payload"),
    button = ProtoField.uint8("guilink.button", "Button"),
    identity = ProtoField.string("guilink.identity", "Identity"),
    firmware = ProtoField.string("guilink.firmware", "Firmware"),
    text = ProtoField.string("guilink.text", "Text"),
    width = ProtoField.uint16("guilink.image.width", "Width"),
    height = ProtoField.uint16("guilink.image.height", "Height"),
    runs_data = ProtoField.bytes("guilink.image.data", "Runs"),
    runs = ProtoField.uint32("guilink.image.runs", "Number of runs"),
    pixels = ProtoField.uint32("guilink.image.pixels", "Pixels in runs"),
    ratio = ProtoField.double("guilink.image.ratio", "Compression ratio"),
    garbage = ProtoField.bytes("guilink.garbage", "Bytes of no frame"),
    device = ProtoField.string("guilink.device", "Device"),
    answer_to = ProtoField.framenum("guilink.answer_to", "Answer to the broadcast in"),
    answered_in = ProtoField.framenum("guilink.answered_in", "Device found by the answer in"),
}
guilink.fields = fields

-- Returns an expert info for a broken rule; `text` begins with the rule's name.
local function broken(name, text, severity)
    return ProtoExpert.new("guilink.broken." .. name, text, expert.group.PROTOCOL, severity or expert.severity.ERROR)
end
local experts = {
    garbage = broken("garbage", "FRAME-1: bytes that belong to no frame"),
    checksum = ProtoExpert.new("guilink.broken.checksum", "FRAME-2: the checksum is wrong",
        expert.group.CHECKSUM, expert.severity.ERROR),
    length = broken("length", "FRAME-3: the payload is too long"),
    companion_type = broken("companion_type", "FRAME-10: a companion does not send this type"),
    device_type = broken("device_type", "FRAME-19: a device does not send this type"),
    broadcast = broken("broadcast", "DISC-2: a broadcast is one IdentityMessage"),
    answer = broken("answer", "DISC-4: the answer is one ConnectRequest of exactly 42 bytes"),
    identity = broken("identity", "DISC-6: an identity has at least 5 bytes"),
    button = broken("button", "PRESS-2: a button is one byte, 0 to 15"),
    size = broken("size", "PICT-11: an image has 1280 x 960 or 1024 x 768 pixels", expert.severity.WARN),
    runs = broken("runs", "PICT-8: the runs do not describe width x height - 1 pixels"),
    empty_run = broken("empty_run", "PICT-10: a run has length 0", expert.severity.WARN),
    transparent = broken("transparent", "PICT-9: a transparent pixel is not 0", expert.severity.WARN),
}
guilink.experts = {
    experts.garbage, experts.checksum, experts.length, experts.companion_type, experts.device_type,
    experts.broadcast, experts.answer, experts.identity, experts.button, experts.size, experts.runs,
    experts.empty_run, experts.transparent,
}

local crc_table = {}
for byte = 0, 255 do
    local crc = byte
    for _ = 1, 8 do
        local shifted = bit.rshift(crc, 1)
        crc = bit.band(crc, 1) == 1 and bit.bxor(shifted, 0xEDB88320) or shifted
    end
    crc_table[byte] = crc
end

local function crc32(data)
    local crc = 0xFFFFFFFF
    for i = 1, #data do
        crc = bit.bxor(bit.rshift(crc, 8), crc_table[bit.band(bit.bxor(crc, data:byte(i)), 0xFF)])
    end
    return bit.bnot(crc) % 0x100000000
end

-- These tables are filled in the first pass over the capture.
local broadcasts  -- maps a device's address to its last broadcast (packet number, identity)
local answers     -- maps a device and a companion to the number of the packet with the last answer
local found       -- maps a packet's number to the last broadcast and the last answer before that packet

function guilink.init()
    broadcasts, answers, found = {}, {}, {}
end

-- Returns the addresses of device and companion in a packet.
local function ends(pinfo, from_device)
    local source, target = tostring(pinfo.src), tostring(pinfo.dst)
    if from_device then return source, target end
    return target, source
end

-- Adds the device's identity to the tree. Returns the last broadcast and the last answer before the packet.
local function add_discovery(tree, pinfo, from_device)
    local device, companion = ends(pinfo, from_device)
    if not pinfo.visited then
        local broadcast = broadcasts[device]
        found[pinfo.number] = {
            identity = broadcast and broadcast.identity,
            broadcast = broadcast and broadcast.number,
            answer = answers[device .. " " .. companion],
        }
    end
    local known = found[pinfo.number] or {}
    if known.identity then tree:add(fields.device, known.identity):set_generated() end
    return known
end

local function add_identity(tree, payload)
    if payload:len() < ID_SIZE then
        tree:add(fields.payload, payload)
        tree:add_proto_expert_info(experts.identity)
        return
    end
    tree:add(fields.identity, payload(0, ID_SIZE))
    if payload:len() > ID_SIZE then tree:add(fields.firmware, payload(ID_SIZE)) end
    return payload(0, ID_SIZE):string()
end

local function add_button(tree, payload)
    tree:add(fields.button, payload(0, 1))
    if payload:len() > 1 then tree:add(fields.payload, payload(1)) end
    if payload:len() > 1 or payload(0, 1):uint() > 15 then tree:add_proto_expert_info(experts.button) end
    return "button " .. payload(0, 1):uint()
end

local function add_text(tree, payload)
    tree:add(fields.text, payload)
end

-- Adds only a summary of the runs, because an image can have thousands of runs.
local function add_image(tree, payload)
    if payload:len() < 4 then
        tree:add(fields.payload, payload)
        tree:add_proto_expert_info(experts.runs)
        return
    end
    local width, height = payload(0, 2):le_uint(), payload(2, 2):le_uint()
    tree:add_le(fields.width, payload(0, 2))
    tree:add_le(fields.height, payload(2, 2))
    local data = payload:raw(4, payload:len() - 4)
    local runs, pixels, empty, transparent = math.floor(#data / 4), 0, false, false
    for at = 1, runs * 4, 4 do
        local length_low, length_high, pixel_low, pixel_high = data:byte(at, at + 3)
        local length = length_low + 256 * length_high
        pixels = pixels + length
        empty = empty or length == 0
        transparent = transparent or at > 1 and pixel_high < 0x10 and pixel_low + pixel_high > 0
    end
    if #data > 0 then tree:add(fields.runs_data, payload(4)) end
    tree:add(fields.runs, runs):set_generated()
    tree:add(fields.pixels, pixels):set_generated()
    tree:add(fields.ratio, width * height * 2 / payload:len()):set_generated()
    if #data % 4 > 0 or pixels ~= width * height - 1 then tree:add_proto_expert_info(experts.runs) end
    if empty then tree:add_proto_expert_info(experts.empty_run) end
    if transparent then tree:add_proto_expert_info(experts.transparent) end
    if not (width == 1280 and height == 960 or width == 1024 and height == 768) then
        tree:add_proto_expert_info(experts.size)
    end
    return string.format("%d x %d, %d runs", width, height, runs)
end

local PAYLOADS = { [BUTTON] = add_button, [IMAGE] = add_image, [IDENTITY] = add_identity, [DATA] = add_text }

-- Adds one complete frame. Returns its type, its name with a summary of its payload, its item in the tree, and the
-- summary alone.
local function add_frame(frame, tree, from_device)
    local kind, length = frame(40, 2):le_uint(), frame(36, 4):le_uint()
    local name = TYPES[kind] or string.format("type %d", kind)
    local branch = tree:add(guilink, frame, "Guilink, " .. name)
    branch:add(fields.start, frame(0, 32))
    local good = crc32(frame:raw(HEADER, length)) == frame(32, 4):le_uint()
    branch:add_le(fields.checksum, frame(32, 4))
    branch:add(fields.checksum_good, good):set_generated()
    if not good then branch:add_proto_expert_info(experts.checksum) end
    branch:add_le(fields.length, frame(36, 4))
    branch:add_le(fields.type, frame(40, 2))
    if from_device and not FROM_DEVICE[kind] then branch:add_proto_expert_info(experts.device_type) end
    if not from_device then
        if not FROM_COMPANION[kind] then branch:add_proto_expert_info(experts.companion_type) end
        if length > MAX_PAYLOAD - HEADER then branch:add_proto_expert_info(experts.length) end
    end
    local detail
    if length > 0 then
        local payload = frame(HEADER, length)
        if good and PAYLOADS[kind] then
            detail = PAYLOADS[kind](branch, payload)
        else
            branch:add(fields.payload, payload)
        end
    elseif kind == BUTTON then
        branch:add_proto_expert_info(experts.button)
    end
    if detail then
        branch:append_text(", " .. detail)
        name = name .. " (" .. detail .. ")"
    end
    return kind, name, branch, detail
end

-- Adds the known fields of an incomplete frame.
local function add_part(part, tree)
    local branch = tree:add(guilink, part, "Guilink, cut off")
    local at = 0
    for _, field in ipairs({ { fields.start, 32 }, { fields.checksum, 4 }, { fields.length, 4 },
                             { fields.type, 2 }, { fields.payload, part:len() } }) do
        local size = math.min(field[2], part:len() - at)
        if size == 0 then break end
        if size == field[2] then branch:add_le(field[1], part(at, size)) else branch:add(fields.payload, part(at)) end
        at = at + size
    end
    return branch
end

local function add_garbage(bytes, tree)
    local branch = tree:add(guilink, bytes, string.format("Guilink, %d bytes of no frame", bytes:len()))
    branch:add(fields.garbage, bytes)
    branch:add_proto_expert_info(experts.garbage)
end

-- Returns the position of the first start sequence at or after `from`, and true; otherwise that of an incomplete one at
-- the end of the data, or the length of the data, and false.
local function find_start(data, from)
    local at = data:find(START, from + 1, true)
    if at then return at - 1, true end
    for candidate = math.max(from, #data - #START + 1), #data - 1 do
        if data:sub(candidate + 1) == START:sub(1, #data - candidate) then return candidate, false end
    end
    return #data, false
end

-- Dissects a part of the link's TCP stream, which may end in the middle of a frame. Marks bytes that belong to no frame.
local function dissect_stream(tvb, pinfo, tree)
    local from_device = pinfo.dst_port == LINK_PORT
    pinfo.cols.protocol = "Guilink"
    local data = tvb:raw()
    local names, position = {}, 0
    local known
    while position < #data do
        local start, whole = find_start(data, position)
        if start > position then
            add_garbage(tvb(position, start - position), tree)
            names[#names + 1] = "no frame"
            position = start
        end
        if position == #data then break end
        local missing
        if not whole or #data < position + HEADER then
            missing = DESEGMENT_ONE_MORE_SEGMENT
        else
            local length = tvb(position + 36, 4):le_uint()
            if length > MAX_PAYLOAD then
                add_part(tvb(position, HEADER), tree):add_proto_expert_info(experts.length)
                names[#names + 1] = "damaged header"
                position = position + HEADER
            elseif #data < position + HEADER + length then
                missing = position + HEADER + length - #data
            else
                local _, name, branch = add_frame(tvb(position, HEADER + length), tree, from_device)
                known = known or add_discovery(branch, pinfo, from_device)
                if known.answer then branch:add(fields.answered_in, known.answer):set_generated() end
                names[#names + 1] = name
                position = position + HEADER + length
            end
        end
        if missing then
            if pinfo.can_desegment > 0 and tvb:reported_len() == #data then
                pinfo.desegment_offset = position
                pinfo.desegment_len = missing
            else
                add_part(tvb(position), tree)
                names[#names + 1] = "cut off"
            end
            break
        end
    end
    if #names > 0 then pinfo.cols.info = table.concat(names, ", ") end
    return tvb:len()
end

-- Dissects discovery: each datagram is one frame, from the device or from the companion.
local function dissect_datagram(tvb, pinfo, tree)
    local from_device = pinfo.dst_port == COMPANION_PORT
    pinfo.cols.protocol = "Guilink"
    local data = tvb:raw()
    local wrong = from_device and experts.broadcast or experts.answer
    local length = #data >= HEADER and tvb(36, 4):le_uint()
    if #data < tvb:reported_len() and START:sub(1, #data) == data:sub(1, #START) then
        add_part(tvb(), tree)
        pinfo.cols.info = "cut off"
        return
    end
    if data:sub(1, #START) ~= START or not length or #data ~= HEADER + length then
        local branch = tree:add(guilink, tvb(), "Guilink, no frame")
        branch:add(fields.garbage, tvb())
        branch:add_proto_expert_info(wrong)
        pinfo.cols.info = "no frame"
        return
    end
    local kind, name, branch, detail = add_frame(tvb(), tree, from_device)
    pinfo.cols.info = name
    local device, companion = ends(pinfo, from_device)
    if from_device then
        if kind ~= IDENTITY then branch:add_proto_expert_info(wrong) end
        if detail and not pinfo.visited then
            broadcasts[device] = { number = pinfo.number, identity = detail }
        end
    else
        if kind ~= CONNECT_REQUEST or length > 0 then branch:add_proto_expert_info(wrong) end
        local known = add_discovery(branch, pinfo, false)
        if known.broadcast then branch:add(fields.answer_to, known.broadcast):set_generated() end
        if not pinfo.visited then answers[device .. " " .. companion] = pinfo.number end
    end
end

function guilink.dissector(tvb, pinfo, tree)
    if pinfo.port_type == 2 then return dissect_stream(tvb, pinfo, tree) end  -- TCP
    dissect_datagram(tvb, pinfo, tree)
end

DissectorTable.get("udp.port"):add(COMPANION_PORT, guilink)
DissectorTable.get("udp.port"):add(DEVICE_PORT, guilink)
DissectorTable.get("tcp.port"):add(LINK_PORT, guilink)
