-- Wireshark dissector for the packets that panel nodes exchange on the fire network; docs/protocol.md describes them.
--
-- Try it with "tshark -X lua_script:contrib/wireshark/diag.lua -r FILE", or copy it to the personal Lua plug-ins
-- (Help, About Wireshark, Folders). Filters: diag, diag.type == 10, diag.malformed, diag.response_time > 1.

set_plugin_info({
    version = "1.0.0",
    description = "Packets of the panel network, UDP port 50004",
})

local PORT = 50004
local MAX_PACKET, HEADER, SECTION_HEADER, FRONT_PORTS = 1024, 10, 3, 8

local diag = Proto("diag", "Panel Diagnostics")
local fields = {}
local function field(kind, name, title, ...)
    fields[name] = ProtoField[kind]("diag." .. name, title, ...)
    return fields[name]
end

local ports = { [0] = "A", "B", "C", "D", "E", "F", "G", "H", "CPU" }
local flags = { [0] = "off", "on" }

-- Code: name and least payload.
local types = {
    { "SUMMARY", 0 },
    { "SUBSCRIBE", 12 },
    { "UNSUBSCRIBE", 10 },
    { "UNSUBSCRIBE_ALL", 8 },
    { "ACK", 4 },
    { "TOPIC_DATA", 2 },
    { "CLIENT_KEEPALIVE", 4 },
    { "RESET_STATS", 1 },
    { "RESET_ALL_STATS", 0 },
    { "ACTIVATE", 5 },
    { "REMOTE_DOWNLOAD", 5 },
    { "GOODBYE", 0 },
}
local type_names = {}
for code, kind in ipairs(types) do
    type_names[code] = kind[1]
end

local version = field("uint8", "version", "Version")
local packet_type = field("uint8", "type", "Type", base.DEC, type_names)
local source_mac = field("ether", "mac", "Source MAC")
local length_field = field("uint16", "length", "Payload length")
local payload_field = field("bytes", "payload", "Payload")
local request_id = field("uint32", "request_id", "Request id")
local client_id = field("uint32", "client_id", "Client id")
local period = field("uint16", "period", "Period in seconds")
local topic = field("string", "topic", "Topic")
local message = field("bytes", "message", "Message")
local reset_port = field("int8", "port", "Port", base.DEC, ports)
local value = field("uint8", "value", "Value")
local request_frame = field("framenum", "request_frame", "Request", base.NONE, frametype.REQUEST)
local ack_frame = field("framenum", "ack_frame", "Acknowledgement", base.NONE, frametype.RESPONSE)
local first_frame = field("framenum", "first_frame", "Repetition of", base.NONE, frametype.DUP_ACK)
local response_time = field("double", "response_time", "Response time in seconds")
local section_type, section_length
local miswired_node, miswired_port, miswired_own

-- Sections of a summary: name and fields, each of a kind, name, title and length.
local function mask(name, title)
    return { "mask", name, title, 1 }
end
local function flag(name, title)
    return { "flag", name, title, 1 }
end
local sections = {
    [0] = { "NODE_NUM", { "number", "node", "Node number", 1 } },
    {
        "PORTS_DYNAMIC",
        mask("link_down", "Link down"),
        mask("ground_fault", "Ground fault"),
        mask("red", "Status red"),
        mask("yellow", "Status yellow"),
        mask("green", "Status green"),
    },
    {
        "PORTS_STATIC",
        mask("media_eth", "Media eth"),
        mask("media_dsl", "Media dsl"),
        mask("media_smf", "Media smf"),
        mask("media_mmf", "Media mmf"),
        mask("fire_ports", "Fire ports"),
        mask("firespur_ports", "Firespur ports"),
    },
    { "MISWIRED", mask("miswired", "Miswired"), { "peers", "peers", "Miswired peers", 24 } },
    {
        "RINGS",
        { "rings", "rings", "Rings with a state", 1 },
        { "rings", "rings_not_closed", "Rings not closed", 1 },
    },
    { "JOB", { "text", "job_name", "Job name", 8 }, { "text", "job_rev", "Job revision", 3 } },
    {
        "DOWNLOAD",
        { "raw", "download_status", "Download status", 2 },
        { "little", "cf_free_space", "Free space on the compact flash", 4 },
        flag("m301", "M301"),
        flag("m702", "M702"),
        flag("comm_loss", "Communication loss"),
        flag("download_pending", "Download pending"),
    },
    { "REPEATER", { "number", "repeater", "Repeater", 1 } },
    {
        "VERSIONS",
        { "text", "boot_loader", "Boot loader", 10 },
        { "text", "boot_loader_version", "Boot loader version", 40 },
        { "text", "os_image", "Operating system image", 10 },
        { "text", "os_image_version", "Operating system image version", 40 },
        { "text", "application", "Primary application", 10 },
        { "text", "application_version", "Primary application version", 40 },
    },
}
local section_names = {}
for code, section in pairs(sections) do
    section_names[code] = section[1]
    section.length = 0
    for i = 2, #section do
        local kind, name, title, size = table.unpack(section[i])
        section.length = section.length + size
        local abbreviation = "summary." .. name
        if kind == "mask" or kind == "rings" then
            field("uint8", abbreviation, title, base.HEX)
        elseif kind == "flag" then
            field("uint8", abbreviation, title, base.DEC, flags)
        elseif kind == "number" then
            field("uint8", abbreviation, title)
        elseif kind == "little" then
            field("uint32", abbreviation, title)
        elseif kind == "text" then
            field("string", abbreviation, title)
        else
            field("bytes", abbreviation, title)
        end
    end
end
section_type = field("uint8", "summary.type", "Section", base.DEC, section_names)
section_length = field("uint16", "summary.length", "Length")
miswired_node = field("uint8", "summary.peer_node", "Peer's node number")
miswired_port = field("uint8", "summary.peer_port", "Peer's port", base.DEC, ports)
miswired_own = field("uint8", "summary.own_port", "This port", base.DEC, ports)
diag.fields = fields

-- Receivers drop a malformed packet, or a part of it, and may stop at a dangerous one.
local malformed = ProtoExpert.new("diag.malformed", "Malformed", expert.group.MALFORMED, expert.severity.ERROR)
local dangerous = ProtoExpert.new("diag.dangerous", "Dangerous", expert.group.PROTOCOL, expert.severity.ERROR)
local unusual = ProtoExpert.new("diag.unusual", "Unusual", expert.group.PROTOCOL, expert.severity.WARN)
local unanswered =
    ProtoExpert.new("diag.unanswered", "Not acknowledged", expert.group.SEQUENCE, expert.severity.NOTE)
diag.experts = { malformed, dangerous, unusual, unanswered }

local function mark(tree, kind, text)
    tree:add_proto_expert_info(kind, text)
end

-- Bits as names: "A C", or "none".
local function bits(number, names)
    local set = {}
    for bit = 0, FRONT_PORTS - 1 do
        if math.floor(number / 2 ^ bit) % 2 == 1 then
            set[#set + 1] = names and names[bit] or tostring(bit)
        end
    end
    return #set > 0 and table.concat(set, " ") or "none"
end

-- Requests by addresses and id. A node that has restarted begins with id 0 again: only the same bytes are a
-- repetition. What the first pass over the capture finds is kept for each frame.
local requests, frames = {}, {}
function diag.init()
    requests, frames = {}, {}
end

local function note_request(pinfo, id, payload)
    local key = tostring(pinfo.src) .. " " .. tostring(pinfo.dst) .. " " .. id
    if not pinfo.visited then
        local bytes = tostring(payload:bytes())
        local request = requests[key]
        if not request or request.bytes ~= bytes then
            request = { bytes = bytes, first = pinfo.number }
            requests[key] = request
        end
        request.last, request.time = pinfo.number, pinfo.rel_ts
        frames[pinfo.number] = request
    end
    return frames[pinfo.number]
end

local function note_ack(pinfo, id)
    if not pinfo.visited then
        local request = requests[tostring(pinfo.dst) .. " " .. tostring(pinfo.src) .. " " .. id]
        if request then
            frames[pinfo.number] = { request = request.last, time = pinfo.rel_ts - request.time }
            request.ack = request.ack or pinfo.number
        end
    end
    return frames[pinfo.number]
end

local function add_request(tree, pinfo, payload)
    local id = payload(0, 4)
    tree:add(request_id, id)
    local request = note_request(pinfo, id:uint(), payload)
    if not request then
        return
    end
    if request.first ~= pinfo.number then
        tree:add(first_frame, request.first):set_generated()
    end
    if request.ack then
        tree:add(ack_frame, request.ack):set_generated()
    elseif pinfo.visited then
        mark(tree, unanswered, "No acknowledgement in this capture")
    end
end

-- Text up to its NUL; returns what follows it, or nil when there is no NUL or nothing before it.
local function add_topic(tree, pinfo, buffer)
    local size = 0
    while size < buffer:len() and buffer(size, 1):uint() ~= 0 do
        size = size + 1
    end
    if size == buffer:len() then
        mark(tree, malformed, "The topic has no terminating NUL")
        return nil
    end
    tree:add(topic, buffer(0, size + 1), buffer(0, size):len() > 0 and buffer(0, size):string() or "")
    if size == 0 then
        mark(tree, malformed, "The topic is empty")
    end
    pinfo.cols.info:append(" " .. (size > 0 and buffer(0, size):string() or "''"))
    return size + 1
end

local function add_peers(tree, data)
    for port = 0, FRONT_PORTS - 1 do
        local peer = data(3 * port, 3)
        local item = tree:add(peer, "Port " .. ports[port])
        item:add(miswired_node, peer(0, 1))
        item:add(miswired_port, peer(1, 1))
        item:add(miswired_own, peer(2, 1))
    end
end

local function add_section(tree, section, data)
    local offset = 0
    for i = 2, #section do
        local kind, name, _, size = table.unpack(section[i])
        local part = data(offset, size)
        local target = fields["summary." .. name]
        if kind == "little" then
            tree:add_le(target, part)
        elseif kind == "text" then
            tree:add(target, part, (part:raw():gsub("%z.*", ""):gsub(" +$", "")))
        else
            local item = tree:add(target, part)
            if kind == "mask" then
                item:append_text(" (" .. bits(part:uint(), ports) .. ")")
            elseif kind == "rings" then
                item:append_text(" (" .. bits(part:uint()) .. ")")
            elseif kind == "peers" then
                add_peers(item, part)
            end
        end
        offset = offset + size
    end
end

local function add_summary(tree, pinfo, payload)
    local offset, last, names = 0, -1, {}
    while payload:len() - offset > SECTION_HEADER do
        local code, length = payload(offset, 1):uint(), payload(offset + 1, 2):uint()
        local rest = payload:len() - offset - SECTION_HEADER
        local section = sections[code]
        local size = SECTION_HEADER + (section and math.min(length, rest) or 0)
        local item = tree:add(payload(offset, size), "Section: " .. (section and section[1] or "unknown"))
        item:add(section_type, payload(offset, 1))
        item:add(section_length, payload(offset + 1, 2))
        if not section then
            mark(item, malformed, "Unknown section: receivers pass over its header only")
        elseif length > rest then
            mark(item, malformed, "The section is longer than the rest of the payload")
        elseif length ~= section.length then
            mark(item, malformed, "The section has another length than " .. section.length)
        else
            add_section(item, section, payload(offset + SECTION_HEADER, length))
            names[#names + 1] = section[1]
        end
        if code <= last then
            mark(item, unusual, "Sections are not in increasing order")
        end
        last = code
        offset = offset + size
    end
    if offset < payload:len() then
        mark(tree, malformed, "Incomplete section")
    end
    if names[1] ~= "NODE_NUM" then
        mark(tree, malformed, "The summary has no node number")
    end
    pinfo.cols.info:append(" " .. table.concat(names, " "))
end

local function add_value(tree, pinfo, payload)
    add_request(tree, pinfo, payload)
    tree:add(value, payload(4, 1))
    pinfo.cols.info:append(" value " .. payload(4, 1):uint())
end

local function add_nothing() end

-- The payload has at least the least length.
local dissect = {
    SUMMARY = add_summary,
    SUBSCRIBE = function(tree, pinfo, payload)
        add_request(tree, pinfo, payload)
        tree:add(client_id, payload(4, 4))
        tree:add(period, payload(8, 2))
        add_topic(tree, pinfo, payload(10))
    end,
    UNSUBSCRIBE = function(tree, pinfo, payload)
        add_request(tree, pinfo, payload)
        tree:add(client_id, payload(4, 4))
        add_topic(tree, pinfo, payload(8))
    end,
    UNSUBSCRIBE_ALL = function(tree, _, payload)
        tree:add(request_id, payload(0, 4))
        tree:add(client_id, payload(4, 4))
    end,
    ACK = function(tree, pinfo, payload)
        tree:add(request_id, payload(0, 4))
        local found = note_ack(pinfo, payload(0, 4):uint())
        if found then
            tree:add(request_frame, found.request):set_generated()
            tree:add(response_time, found.time):set_generated()
        end
    end,
    TOPIC_DATA = function(tree, pinfo, payload)
        local start = add_topic(tree, pinfo, payload)
        if start and start < payload:len() then
            tree:add(message, payload(start))
        elseif start then
            mark(tree, malformed, "Nothing follows the topic: the topic was removed, which is not relayed")
        end
    end,
    CLIENT_KEEPALIVE = function(tree, _, payload)
        tree:add(client_id, payload(0, 4))
    end,
    RESET_STATS = function(tree, _, payload)
        local item = tree:add(reset_port, payload(0, 1))
        if not ports[payload(0, 1):int()] then
            mark(item, dangerous, "There is no such port: the receiver stops")
        end
    end,
    RESET_ALL_STATS = add_nothing,
    ACTIVATE = add_value,
    REMOTE_DOWNLOAD = add_value,
    GOODBYE = add_nothing,
}

function diag.dissector(buffer, pinfo, root)
    pinfo.cols.protocol = "DIAG"
    local size = buffer:reported_length_remaining()
    local tree = root:add(diag, buffer())
    if size > MAX_PACKET then
        mark(tree, malformed, "More than " .. MAX_PACKET .. " bytes")
    end
    if buffer:len() < HEADER then
        mark(tree, malformed, "Less than a header of " .. HEADER .. " bytes")
        return
    end
    local version_item = tree:add(version, buffer(0, 1))
    if buffer(0, 1):uint() ~= 1 then
        mark(version_item, unusual, "Version other than 1, which receivers do not look at")
    end
    local type_item = tree:add(packet_type, buffer(1, 1))
    tree:add(source_mac, buffer(2, 6))
    local length_item = tree:add(length_field, buffer(8, 2))
    local kind, length = types[buffer(1, 1):uint()], buffer(8, 2):uint()
    if length > size - HEADER then
        mark(length_item, malformed, "Longer than the packet")
        return
    end
    if length < size - HEADER then
        mark(length_item, unusual, (size - HEADER - length) .. " bytes follow the payload")
    end
    if not kind then
        mark(type_item, malformed, "Unknown type")
        return
    end
    pinfo.cols.info = kind[1]
    tree:append_text(", " .. kind[1])
    if length < kind[2] then
        mark(length_item, malformed, "Shorter than " .. kind[2] .. " bytes")
    elseif length > buffer:len() - HEADER then
        tree:add(payload_field, buffer(HEADER)):append_text(" (cut short by the capture)")
    elseif length > 0 then
        dissect[kind[1]](tree, pinfo, buffer(HEADER, length))
    elseif kind[1] == "SUMMARY" then
        mark(tree, malformed, "The summary has no node number")
    end
end

DissectorTable.get("udp.port"):add(PORT, diag)
