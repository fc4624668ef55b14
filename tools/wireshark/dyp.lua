-- Wireshark dissector for the two protocols of dypd:
--   DYP, discovery and commands, on UDP 19540 and 19541 (more ports through
--        the preference "dyp.extra_ports");
--   SKA, keep-alive, on UDP 49235.
--
-- Use it once:   tshark -X lua_script:tools/wireshark/dyp.lua -r docs/example.pcapng -V
-- or install it: copy this file into ~/.local/lib/wireshark/plugins/
--
-- A DYP datagram whose source port is a DYP port is a response, anything
-- else sent to a DYP port is a request. A command's result travels in
-- windows of up to 512 bytes, one per START or DATA reply; the windows of
-- one transfer (from a START to its END, between one host address and port
-- and one box address and port) are put back together and the result is
-- decoded on the reply that completes it. A reply learns its command from
-- the START it answers, so a transfer whose START is not in the capture is
-- shown as bare windows.
--
-- Anything that does not add up is flagged with expert info; every read is
-- bounds-checked, and a fault in this file shows up as the expert info
-- "dyp.expert.internal", never as a Lua error.

local dyp = Proto("dyp", "DYP device-server protocol")
local ska = Proto("ska", "SKA keep-alive")

---------------------------------------------------------------------------
-- Wire constants

local REQUEST_HEADER_SIZE = 88
local REQUEST_MAX = 510
local RESPONSE_HEADER_SIZE = 8
local RESPONSE_MAX = 520
local WINDOW_MAX = 512
local SESSION_SIZE = 65536
local ADVERTISE_REPLY_SIZE = 164

local REQ_TYPE, REQ_MARKER, REQ_NAME, REQ_OFFSET, REQ_LENGTH, REQ_DATA = 0, 2, 4, 84, 86, 88
local NAME_FIELD_SIZE = 80
local NAME_TEXT_MAX = 79 -- the box forces the field's last byte to NUL

local RSP_TYPE, RSP_STATUS, RSP_OFFSET, RSP_LENGTH, RSP_DATA = 0, 2, 4, 6, 8

local TYPE_START, TYPE_DATA, TYPE_END, TYPE_ADVERTISE = 1, 2, 3, 4
local TYPE_NAMES = { [1] = "START", [2] = "DATA", [3] = "END", [4] = "ADVERTISE" }
local ADVERTISE_MARKER = "\149\006" -- the bytes 95 06
local ADVERTISE_REPLY_TYPE = "\000\002"

-- Advertise reply layout.
local ADV_PRODUCT, ADV_PRODUCT_SIZE = 36, 16
local ADV_MAC = 56
local ADV_ONE = 64
local ADV_IP = 66
local ADV_VERSION, ADV_VERSION_SIZE = 72, 10
local ADV_STATUS = 82
local ADV_DESCRIPTION, ADV_DESCRIPTION_SIZE = 84, 32
local ADV_HOST, ADV_HOST_SIZE = 116, 16

-- Texts in command payloads, sizes with their NUL.
local IFNAME_SIZE = 16
local DESCRIPTION_SIZE = 64
local LOCATION_SIZE = 16
local SERIAL_SIZE = 64

local CONNECT_FORMAT, CONNECT_ADDR_LEN = 1, 6
local DEFAULT_DYP_PORT = 19540

local SKA_PORT = 49235
local SKA_HEADER_SIZE = 4
local SKA_MIN = 6
local SKA_MAX = 4084
local SKA_MAGIC = 0x4B41

---------------------------------------------------------------------------
-- Fields

local f = {
    type = ProtoField.uint16("dyp.type", "Type", base.DEC, TYPE_NAMES),
    marker = ProtoField.bytes("dyp.marker", "Marker"),
    name = ProtoField.string("dyp.name", "Name field"),
    command = ProtoField.string("dyp.command", "Command"),
    param = ProtoField.string("dyp.param", "Parameter"),
    offset = ProtoField.uint16("dyp.offset", "Offset"),
    length = ProtoField.uint16("dyp.length", "Length"),
    status = ProtoField.uint16("dyp.status", "Status", base.DEC,
        { [0] = "nothing after this window", [1] = "result bytes remain after this window" }),
    data = ProtoField.bytes("dyp.data", "Data"),
    request_in = ProtoField.framenum("dyp.request_in", "Start of this transfer in"),
    response_to = ProtoField.framenum("dyp.response_to", "Response to"),

    result = ProtoField.bytes("dyp.result", "Result"),
    result_length = ProtoField.uint32("dyp.result.length", "Result length"),
    result_windows = ProtoField.uint16("dyp.result.windows", "Windows"),
    result_window = ProtoField.framenum("dyp.result.window", "Window in"),

    connect = ProtoField.none("dyp.connect", "Parameter block"),
    connect_format = ProtoField.uint8("dyp.connect.format", "Format"),
    connect_addrlen = ProtoField.uint8("dyp.connect.addrlen", "Address length"),
    connect_mac = ProtoField.ether("dyp.connect.mac", "Host MAC"),
    connect_ip = ProtoField.ipv4("dyp.connect.ip", "Host IPv4"),
    connect_ifname = ProtoField.string("dyp.connect.ifname", "Interface name"),
    connect_port = ProtoField.uint16("dyp.connect.port", "Host port"),
    connect_options = ProtoField.uint8("dyp.connect.options", "Options", base.HEX),
    connect_option_b0 = ProtoField.bool("dyp.connect.options.b0", "Bit 0 (to the driver)", 8, nil, 0x01),
    connect_option_b1 = ProtoField.bool("dyp.connect.options.b1", "Bit 1 (to the driver)", 8, nil, 0x02),
    exec_result = ProtoField.string("dyp.exec.result", "Result"),

    query_vid = ProtoField.uint16("dyp.query.vid", "Vendor id", base.HEX),
    query_pid = ProtoField.uint16("dyp.query.pid", "Product id", base.HEX),
    query_location = ProtoField.string("dyp.query.location", "Location"),
    usbport_found = ProtoField.uint8("dyp.usbport.found", "Found", base.DEC,
        { [0] = "no such device", [1] = "found" }),
    usbport_name = ProtoField.string("dyp.usbport.name", "Interface name"),

    scanner_ifname = ProtoField.string("dyp.scanner.ifname", "Interface name"),
    scanner_status = ProtoField.uint16("dyp.scanner.status", "Status word", base.HEX),
    scanner_holder = ProtoField.ipv4("dyp.scanner.holder", "Held by"),
    scanner_holder_mac = ProtoField.ether("dyp.scanner.holder_mac", "Holder MAC"),
    scanner_box_mac = ProtoField.ether("dyp.scanner.box_mac", "Box MAC"),
    scanner_description = ProtoField.string("dyp.scanner.description", "Description"),

    ports_count = ProtoField.uint8("dyp.ports.count", "Count"),
    ports_name = ProtoField.string("dyp.ports.name", "Interface name"),

    adv_type = ProtoField.bytes("dyp.adv.type", "Reply type"),
    adv_product = ProtoField.string("dyp.adv.product", "Product"),
    adv_hostname = ProtoField.string("dyp.adv.hostname", "Host name"),
    adv_mac = ProtoField.ether("dyp.adv.mac", "MAC"),
    adv_one = ProtoField.uint16("dyp.adv.one", "Constant"),
    adv_ip = ProtoField.ipv4("dyp.adv.ip", "IPv4"),
    adv_version = ProtoField.string("dyp.adv.version", "Protocol version"),
    adv_status = ProtoField.uint16("dyp.adv.status", "Status word", base.HEX),
    adv_description = ProtoField.string("dyp.adv.description", "First shared device"),

    dev_count = ProtoField.uint8("dyp.dev.count", "Count"),
    dev_entry = ProtoField.none("dyp.dev", "Device"),
    dev_name = ProtoField.string("dyp.dev.name", "Interface name"),
    dev_description = ProtoField.string("dyp.dev.description", "Description"),
    dev_holder = ProtoField.ipv4("dyp.dev.holder", "Held by"),
    dev_status = ProtoField.uint16("dyp.dev.status", "Status word", base.HEX),
    dev_vid = ProtoField.uint16("dyp.dev.vid", "Vendor id", base.HEX),
    dev_pid = ProtoField.uint16("dyp.dev.pid", "Product id", base.HEX),
    dev_location = ProtoField.string("dyp.dev.location", "Location"),
    dev_aux1 = ProtoField.uint8("dyp.dev.aux1", "Aux 1"),
    dev_aux2 = ProtoField.uint8("dyp.dev.aux2", "Aux 2"),
    dev_serial = ProtoField.string("dyp.dev.serial", "Serial number"),
    dev_reserved = ProtoField.bytes("dyp.dev.reserved", "Reserved"),

    -- Bits of every status word (device lists, scanner status, advertise).
    flag_ds_8000 = ProtoField.bool("dyp.flag.ds_8000", "Device server (0x8000)", 16, nil, 0x8000),
    flag_flagged = ProtoField.bool("dyp.flag.flagged", "Driver flag", 16, nil, 0x0400),
    flag_ds_0080 = ProtoField.bool("dyp.flag.ds_0080", "Device server (0x0080)", 16, nil, 0x0080),
    flag_ds_0002 = ProtoField.bool("dyp.flag.ds_0002", "Device server (0x0002)", 16, nil, 0x0002),
    flag_present = ProtoField.bool("dyp.flag.present", "Device present", 16, nil, 0x0001),
}
local STATUS_BITS = { f.flag_ds_8000, f.flag_flagged, f.flag_ds_0080, f.flag_ds_0002, f.flag_present }

local sf = {
    length = ProtoField.uint16("ska.length", "Length"),
    magic = ProtoField.uint16("ska.magic", "Magic", base.HEX, { [SKA_MAGIC] = "KA" }),
    name = ProtoField.string("ska.name", "Interface name"),
    echo = ProtoField.bool("ska.echo", "Echo from the box"),
}

local field_list = {}
for _, field in pairs(f) do field_list[#field_list + 1] = field end
dyp.fields = field_list
field_list = {}
for _, field in pairs(sf) do field_list[#field_list + 1] = field end
ska.fields = field_list

---------------------------------------------------------------------------
-- Expert info

local E = expert.group
local S = expert.severity
local ef = {
    short = ProtoExpert.new("dyp.expert.short", "Datagram shorter than its header", E.MALFORMED, S.ERROR),
    oversize = ProtoExpert.new("dyp.expert.oversize", "Datagram larger than the box handles", E.MALFORMED, S.ERROR),
    bad_type = ProtoExpert.new("dyp.expert.bad_type", "Invalid packet type", E.PROTOCOL, S.WARN),
    bad_marker = ProtoExpert.new("dyp.expert.bad_marker", "Wrong advertise marker", E.PROTOCOL, S.WARN),
    unterminated = ProtoExpert.new("dyp.expert.unterminated", "Text not terminated within its field", E.MALFORMED, S.WARN),
    cut = ProtoExpert.new("dyp.expert.cut", "Text longer than the box keeps", E.PROTOCOL, S.NOTE),
    window = ProtoExpert.new("dyp.expert.window", "Window reaches past 65536", E.MALFORMED, S.ERROR),
    length = ProtoExpert.new("dyp.expert.length", "Length does not match the datagram", E.MALFORMED, S.ERROR),
    bad_status = ProtoExpert.new("dyp.expert.bad_status", "Status is neither 0 nor 1", E.PROTOCOL, S.WARN),
    empty_window = ProtoExpert.new("dyp.expert.empty_window", "Window claims more but carries nothing", E.PROTOCOL, S.WARN),
    params = ProtoExpert.new("dyp.expert.params", "Bad command parameters", E.PROTOCOL, S.WARN),
    unknown_command = ProtoExpert.new("dyp.expert.unknown_command", "Command unknown to the box", E.PROTOCOL, S.WARN),
    truncated = ProtoExpert.new("dyp.expert.truncated", "Result truncated", E.MALFORMED, S.ERROR),
    bad_result = ProtoExpert.new("dyp.expert.bad_result", "Result does not decode", E.MALFORMED, S.ERROR),
    trailing = ProtoExpert.new("dyp.expert.trailing", "Bytes after the result", E.MALFORMED, S.WARN),
    count = ProtoExpert.new("dyp.expert.count", "Count byte and entries disagree", E.PROTOCOL, S.NOTE),
    gap = ProtoExpert.new("dyp.expert.gap", "Windows of the result missing", E.SEQUENCE, S.WARN),
    no_start = ProtoExpert.new("dyp.expert.no_start", "Transfer started before the capture", E.SEQUENCE, S.NOTE),
    advertise = ProtoExpert.new("dyp.expert.advertise", "Advertise reply does not add up", E.MALFORMED, S.ERROR),
    internal = ProtoExpert.new("dyp.expert.internal", "Dissector fault", E.UNDECODED, S.ERROR),
}
local sef = {
    short = ProtoExpert.new("ska.expert.short", "Datagram shorter than 6 bytes", E.MALFORMED, S.ERROR),
    length = ProtoExpert.new("ska.expert.length", "Length field differs from the datagram's size", E.MALFORMED, S.ERROR),
    magic = ProtoExpert.new("ska.expert.magic", "Magic is not KA", E.MALFORMED, S.ERROR),
    oversize = ProtoExpert.new("ska.expert.oversize", "Datagram larger than the box reads", E.MALFORMED, S.ERROR),
    no_end = ProtoExpert.new("ska.expert.no_end", "Names not closed by an empty name", E.PROTOCOL, S.WARN),
    unterminated = ProtoExpert.new("ska.expert.unterminated", "Name not terminated", E.MALFORMED, S.WARN),
    cut = ProtoExpert.new("ska.expert.cut", "Name longer than 15 characters", E.PROTOCOL, S.NOTE),
    trailing = ProtoExpert.new("ska.expert.trailing", "Bytes after the empty name", E.PROTOCOL, S.NOTE),
    internal = ProtoExpert.new("ska.expert.internal", "Dissector fault", E.UNDECODED, S.ERROR),
}
field_list = {}
for _, e in pairs(ef) do field_list[#field_list + 1] = e end
dyp.experts = field_list
field_list = {}
for _, e in pairs(sef) do field_list[#field_list + 1] = e end
ska.experts = field_list

---------------------------------------------------------------------------
-- Bounds-checked reading

-- A NUL-terminated text of at most `max` bytes (its NUL included) at `pos`:
-- the text, the bytes it takes (with its NUL; all that is there when it is
-- unterminated) and whether the NUL was found.
local function text_at(tvb, pos, max)
    local available = math.min(max, tvb:len() - pos)
    if available <= 0 then
        return "", 0, false
    end
    local raw = tvb:raw(pos, available)
    local nul = raw:find("\0", 1, true)
    if nul then
        return raw:sub(1, nul - 1), nul, true
    end
    return raw, available, false
end

-- The text of a fixed-size field: up to its first NUL, never past the field.
local function fixed_text(tvb, pos, size)
    local text = text_at(tvb, pos, size)
    return text
end

local function hex16(value)
    return string.format("0x%04x", value)
end

-- Walks a command result front to back. Each read of a field that is not
-- all there flags the result as truncated once and makes every later read
-- fail, so a decoder can simply stop at the first nil.
local Reader = {}
Reader.__index = Reader

-- A reader of `tvb` from `pos` (default 0) that flags problems on `tree`.
local function reader(tvb, tree, pos)
    return setmetatable({ tvb = tvb, tree = tree, pos = pos or 0, ok = true }, Reader)
end

function Reader:left()
    return self.tvb:len() - self.pos
end

function Reader:truncated(what)
    if self.ok then
        self.tree:add_proto_expert_info(ef.truncated, "Result ends inside " .. what)
        self.ok = false
    end
end

-- The range of the next n bytes, or nil.
function Reader:take(n, what)
    if not self.ok then
        return nil
    end
    if self:left() < n then
        self:truncated(what)
        return nil
    end
    local range = self.tvb(self.pos, n)
    self.pos = self.pos + n
    return range
end

-- A NUL-terminated text of at most `max` bytes with its NUL: its range and
-- text, or nil.
function Reader:text(max, what)
    if not self.ok then
        return nil
    end
    local text, used, terminated = text_at(self.tvb, self.pos, max)
    if not terminated then
        if used < max then
            self:truncated(what)
        else
            self.tree:add_proto_expert_info(ef.unterminated,
                what .. " is not terminated within " .. max .. " bytes")
            self.ok = false
        end
        return nil
    end
    local range = self.tvb(self.pos, used)
    self.pos = self.pos + used
    return range, text
end

local function add_status_word(tree, field, range)
    local item = tree:add(field, range)
    for _, bit in ipairs(STATUS_BITS) do
        item:add(bit, range)
    end
    return item
end

---------------------------------------------------------------------------
-- Command results

local function decode_ok_ng(tvb, tree)
    local raw = tvb:len() > 0 and tvb:raw(0, tvb:len()) or ""
    if raw == "OK\0" or raw == "NG\0" then
        tree:add(f.exec_result, tvb(0, 3), raw:sub(1, 2))
        return raw:sub(1, 2)
    end
    tree:add_proto_expert_info(ef.bad_result, "Expected \"OK\" or \"NG\" and a NUL, got "
        .. #raw .. " other bytes")
    return nil
end

local function decode_device_list(extended)
    return function(tvb, tree)
        local r = reader(tvb, tree)
        local count_range = r:take(1, "the count byte")
        if not count_range then
            return nil
        end
        local count = count_range:uint()
        tree:add(f.dev_count, count_range)
        local entries = 0
        while r.ok and r:left() > 0 do
            local start = r.pos
            local entry = tree:add(f.dev_entry, tvb(start, 1))
            local er = reader(tvb, entry, start)
            local name_range, name = er:text(IFNAME_SIZE, "the interface name")
            if name_range then entry:add(f.dev_name, name_range, name) end
            local desc_range, desc = er:text(DESCRIPTION_SIZE, "the description")
            if desc_range then entry:add(f.dev_description, desc_range, desc) end
            local holder = er:take(4, "the holder address")
            if holder then entry:add(f.dev_holder, holder) end
            local status = er:take(2, "the status word")
            if status then add_status_word(entry, f.dev_status, status) end
            if extended then
                local reserved = er:take(2, "the reserved word")
                if reserved then entry:add(f.dev_reserved, reserved) end
            end
            local vid = er:take(2, "the vendor id")
            if vid then entry:add(f.dev_vid, vid) end
            local pid = er:take(2, "the product id")
            if pid then entry:add(f.dev_pid, pid) end
            local location = er:take(LOCATION_SIZE, "the location")
            if location then
                entry:add(f.dev_location, location, fixed_text(tvb, location:offset(), LOCATION_SIZE))
            end
            local aux1 = er:take(1, "aux1")
            if aux1 then entry:add(f.dev_aux1, aux1) end
            local aux2 = er:take(1, "aux2")
            if aux2 then entry:add(f.dev_aux2, aux2) end
            if extended then
                local serial = er:take(SERIAL_SIZE, "the serial number")
                if serial then
                    entry:add(f.dev_serial, serial, fixed_text(tvb, serial:offset(), SERIAL_SIZE))
                end
            end
            local tail = er:take(4, "the reserved tail")
            if tail then entry:add(f.dev_reserved, tail) end
            entry:set_len(er.pos - start)
            entries = entries + 1
            entry:append_text(string.format(" %d: %s", entries, name or "?"))
            if vid and pid then
                entry:append_text(string.format(" (%04x:%04x)", vid:uint(), pid:uint()))
            end
            if desc then
                entry:append_text(", " .. desc)
            end
            r.pos = er.pos
            r.ok = er.ok
            if entries > count then
                entry:add_proto_expert_info(ef.count, "More entries than the count byte ("
                    .. count .. ") says")
            end
        end
        if r.ok and entries < count then
            -- The box counts a device that vanished while it listed it.
            tree:add_proto_expert_info(ef.count, "Count byte " .. count .. ", " .. entries
                .. " entries")
        end
        return string.format("%d device(s)", entries)
    end
end

local function decode_scanner_status(tvb, tree)
    local r = reader(tvb, tree)
    local status = r:take(2, "the status word")
    if status then add_status_word(tree, f.scanner_status, status) end
    local holder = r:take(4, "the holder address")
    if holder then tree:add(f.scanner_holder, holder) end
    local holder_mac = r:take(6, "the holder MAC")
    if holder_mac then tree:add(f.scanner_holder_mac, holder_mac) end
    local box_mac = r:take(6, "the box MAC")
    if box_mac then tree:add(f.scanner_box_mac, box_mac) end
    local desc_range, desc = r:text(DESCRIPTION_SIZE, "the description")
    if desc_range then tree:add(f.scanner_description, desc_range, desc) end
    if r.ok and r:left() > 0 then
        tree:add_tvb_expert_info(ef.trailing, tvb(r.pos, r:left()))
    end
    return desc and string.format("%s %s", status and hex16(status:uint()) or "", desc) or nil
end

local function decode_port_names(tvb, tree)
    local r = reader(tvb, tree)
    local count_range = r:take(1, "the count byte")
    if not count_range then
        return nil
    end
    tree:add(f.ports_count, count_range)
    local names = {}
    while r.ok and r:left() > 0 do
        local range, name = r:text(IFNAME_SIZE, "an interface name")
        if range then
            tree:add(f.ports_name, range, name)
            names[#names + 1] = name
        end
    end
    if r.ok and #names % 256 ~= count_range:uint() then
        tree:add_proto_expert_info(ef.count, "Count byte " .. count_range:uint() .. ", "
            .. #names .. " names")
    end
    return table.concat(names, ", ")
end

local function decode_usb_port_name(tvb, tree)
    local r = reader(tvb, tree)
    local found = r:take(1, "the found flag")
    if not found then
        return nil
    end
    tree:add(f.usbport_found, found)
    local name
    if found:uint() == 1 then
        local range
        range, name = r:text(IFNAME_SIZE, "the interface name")
        if range then tree:add(f.usbport_name, range, name) end
    elseif found:uint() ~= 0 then
        tree:add_tvb_expert_info(ef.bad_result, found, "Found flag is neither 0 nor 1")
        return nil
    end
    if r.ok and r:left() > 0 then
        tree:add_tvb_expert_info(ef.trailing, tvb(r.pos, r:left()))
    end
    return name or "no such device"
end

---------------------------------------------------------------------------
-- Command parameters in START requests

-- The name text as the box sees it: up to the first NUL of the field's
-- first 79 bytes (it forces the last byte to NUL); and whether a NUL came.
local function name_text(tvb)
    local text, _, terminated = text_at(tvb, REQ_NAME, NAME_TEXT_MAX)
    return text, terminated
end

-- `colon` is the place of the first ':' in the name text (1 for its first
-- character), or nil.
local function decode_status_param(tvb, tree, colon)
    if not colon then
        tree:add_proto_expert_info(ef.params, "No ':' and interface name: the box answers for an unknown interface")
        return nil
    end
    local pos = REQ_NAME + colon
    local text, used = text_at(tvb, pos, REQ_NAME + NAME_TEXT_MAX - pos)
    local item = tree:add(f.scanner_ifname, tvb(pos, math.max(used, 1)), text)
    if #text >= IFNAME_SIZE then
        item:add_proto_expert_info(ef.cut, "The box looks up the first 15 characters")
    end
    return text
end

-- The parameter block of EXEC SCANNER CONNECT and DISCONNECT, which starts
-- at the first ':' of the name field (format, address length, MAC, IPv4,
-- interface name; connect adds port and options).
local function decode_connect_params(connect)
    return function(tvb, tree, colon)
        if not colon then
            tree:add_proto_expert_info(ef.params, "No ':' and parameter block: the box answers NG")
            return nil
        end
        local base_pos = REQ_NAME + colon - 1 -- the ':'
        local limit = REQ_NAME + NAME_TEXT_MAX -- byte 83, always NUL to the box
        local block = tree:add(f.connect, tvb(base_pos, limit - base_pos))
        local function range(at, n, what)
            if at + n > limit then
                block:add_proto_expert_info(ef.params, what .. " lies past the name field")
                return nil
            end
            return tvb(at, n)
        end
        local format = range(base_pos + 1, 1, "The format byte")
        local addrlen = range(base_pos + 2, 1, "The address length")
        if not (format and addrlen) then
            return nil
        end
        block:add(f.connect_format, format)
        block:add(f.connect_addrlen, addrlen)
        if format:uint() ~= CONNECT_FORMAT or addrlen:uint() ~= CONNECT_ADDR_LEN then
            block:add_proto_expert_info(ef.params, "Format must be 1 and address length 6: the box answers NG")
        end
        local mac = range(base_pos + 3, 6, "The MAC address")
        if mac then block:add(f.connect_mac, mac) end
        local ip = range(base_pos + 9, 4, "The IPv4 address")
        if ip then block:add(f.connect_ip, ip) end
        local name_pos = base_pos + 13
        if name_pos >= limit then
            block:add_proto_expert_info(ef.params, "The interface name lies past the name field")
            return nil
        end
        local ifname, used, terminated = text_at(tvb, name_pos, limit - name_pos)
        local name_item = block:add(f.connect_ifname, tvb(name_pos, math.max(used, 1)), ifname)
        if not terminated then
            name_item:add_proto_expert_info(ef.unterminated, "Interface name runs to the end of the name field")
            return ifname
        end
        if #ifname >= IFNAME_SIZE then
            name_item:add_proto_expert_info(ef.cut, "The box keeps the first 15 characters")
        end
        if connect then
            local port = range(name_pos + used, 2, "The port")
            if port then
                local item = block:add(f.connect_port, port)
                if port:uint() == 0 then
                    item:append_text(" (the box uses " .. DEFAULT_DYP_PORT .. ")")
                end
            end
            local options = range(name_pos + used + 2, 1, "The options byte")
            if options then
                local item = block:add(f.connect_options, options)
                item:add(f.connect_option_b0, options)
                item:add(f.connect_option_b1, options)
            end
        end
        block:set_len(math.min(limit, name_pos + used + (connect and 3 or 0)) - base_pos)
        return ifname
    end
end

local function decode_usb_port_query(tvb, tree)
    if tvb:len() < REQ_DATA + 4 + LOCATION_SIZE then
        tree:add_proto_expert_info(ef.params,
            "Query shorter than 20 bytes: the box reads what its buffer held before")
        return
    end
    tree:add(f.query_vid, tvb(REQ_DATA, 2))
    tree:add(f.query_pid, tvb(REQ_DATA + 2, 2))
    tree:add(f.query_location, tvb(REQ_DATA + 4, LOCATION_SIZE),
        fixed_text(tvb, REQ_DATA + 4, LOCATION_SIZE))
end

-- The box's commands, looked up by prefix in this order (the EX list before
-- the plain one, whose name is its prefix). Transfer modes: "read" results
-- come in windows; "exec" results come whole in the START reply.
local COMMANDS = {
    { name = "GET USB_DEVICE_LIST_EX", mode = "read", result = decode_device_list(true) },
    { name = "GET USB_DEVICE_LIST", mode = "read", result = decode_device_list(false) },
    { name = "GET SCANNER_STATUS", mode = "read", params = decode_status_param,
      result = decode_scanner_status },
    { name = "GET SCANNER PORT_NAME", mode = "read", result = decode_port_names },
    { name = "GET USB_PORT_NAME", mode = "read", query = decode_usb_port_query,
      result = decode_usb_port_name },
    { name = "EXEC SCANNER CONNECT", mode = "exec", params = decode_connect_params(true),
      result = decode_ok_ng },
    { name = "EXEC SCANNER DISCONNECT", mode = "exec", params = decode_connect_params(false),
      result = decode_ok_ng },
}

local function find_command(text)
    for _, command in ipairs(COMMANDS) do
        if text:sub(1, #command.name) == command.name then
            return command
        end
    end
    return nil
end

---------------------------------------------------------------------------
-- Transfers, followed on the first pass and remembered per frame

local dyp_ports = { [19540] = true, [19541] = true }
local transfers = {} -- "host:port>box:port" -> the transfer in progress
local frames = {}    -- frame number -> what the first pass learnt about it

function dyp.init()
    transfers = {}
    frames = {}
end

local function transfer_key(host, host_port, box, box_port)
    return tostring(host) .. ":" .. host_port .. ">" .. tostring(box) .. ":" .. box_port
end

-- Puts the windows of a completed read together: the result as a string,
-- and the frames of the windows it was made of; nil when a window is
-- missing.
local function assemble(transfer, total)
    local parts, window_frames = {}, {}
    local pos = 0
    while pos < total do
        local window = transfer.windows[pos]
        if not window or #window.bytes == 0 then
            return nil, window_frames
        end
        parts[#parts + 1] = window.bytes
        window_frames[#window_frames + 1] = window.frame
        pos = pos + #window.bytes
    end
    local result = table.concat(parts)
    return result:sub(1, total), window_frames
end

-- An invalid type from anybody makes the box abandon the transfer in
-- progress on its port.
local function abandon_transfers(box, box_port)
    local suffix = ">" .. tostring(box) .. ":" .. box_port
    for key in pairs(transfers) do
        if key:sub(-#suffix) == suffix then
            transfers[key] = nil
        end
    end
end

local function learn_request(pinfo, kind, command)
    local key = transfer_key(pinfo.src, pinfo.src_port, pinfo.dst, pinfo.dst_port)
    local transfer = transfers[key]
    if kind == TYPE_START then
        transfer = { command = command, start = pinfo.number, windows = {} }
        transfers[key] = transfer
    elseif not TYPE_NAMES[kind] then
        abandon_transfers(pinfo.dst, pinfo.dst_port)
        transfer = nil
    elseif kind == TYPE_ADVERTISE then
        transfer = nil
    end
    local state = { last_request = pinfo.number }
    if transfer then
        state.command, state.start = transfer.command, transfer.start
        transfer.last_request = pinfo.number
    end
    frames[pinfo.number] = state
end

local function learn_response(pinfo, tvb, echo, status, offset, length)
    local key = transfer_key(pinfo.dst, pinfo.dst_port, pinfo.src, pinfo.src_port)
    local transfer = transfers[key]
    local state = {}
    frames[pinfo.number] = state
    if not transfer then
        return
    end
    state.command, state.start = transfer.command, transfer.start
    state.request = transfer.last_request
    local data_len = tvb:len() - RSP_DATA
    local command = transfer.command
    if echo == TYPE_END then
        transfers[key] = nil
    elseif command and command.mode == "exec" and echo == TYPE_START then
        if data_len > 0 and data_len == length then
            state.result = tvb:raw(RSP_DATA, data_len)
            state.window_frames = { pinfo.number }
        end
    elseif command and command.mode == "read" and (echo == TYPE_START or echo == TYPE_DATA) then
        if data_len > 0 then
            transfer.windows[offset] = { bytes = tvb:raw(RSP_DATA, data_len), frame = pinfo.number }
        end
        if status == 0 and data_len == length then
            local result, window_frames = assemble(transfer, offset + length)
            state.result = result
            state.window_frames = window_frames
            state.gap = result == nil
        end
    end
end

---------------------------------------------------------------------------
-- DYP requests

local function dissect_request(tvb, pinfo, tree)
    local size = tvb:len()
    if size < REQUEST_HEADER_SIZE then
        if size >= 2 then
            tree:add(f.type, tvb(REQ_TYPE, 2))
        end
        tree:add_proto_expert_info(ef.short, "Request of " .. size
            .. " bytes, shorter than the 88-byte header: the box drops it")
        pinfo.cols.info:set("Short request")
        return
    end
    local kind = tvb(REQ_TYPE, 2):uint()
    local type_item = tree:add(f.type, tvb(REQ_TYPE, 2))
    local type_name = TYPE_NAMES[kind] or ("type " .. kind)
    if size > REQUEST_MAX then
        tree:add_proto_expert_info(ef.oversize, "Request of " .. size
            .. " bytes: the box refuses anything larger than 510")
    end
    if not TYPE_NAMES[kind] then
        type_item:add_proto_expert_info(ef.bad_type,
            "Invalid type " .. kind .. ": the box abandons its transfer and answers nothing")
    end

    local marker = tvb(REQ_MARKER, 2)
    local marker_item = tree:add(f.marker, marker)
    if kind == TYPE_ADVERTISE and marker:raw() ~= ADVERTISE_MARKER then
        marker_item:add_proto_expert_info(ef.bad_marker, "Advertise marker is not 95 06: the box does not answer")
    end

    local text, terminated = name_text(tvb)
    local name_item = tree:add(f.name, tvb(REQ_NAME, NAME_FIELD_SIZE), text)
    if kind == TYPE_START and not terminated then
        name_item:add_proto_expert_info(ef.unterminated, "No NUL in the first 79 bytes: the box reads those")
    end
    local offset = tvb(REQ_OFFSET, 2):uint()
    local length = tvb(REQ_LENGTH, 2):uint()
    tree:add(f.offset, tvb(REQ_OFFSET, 2))
    local length_item = tree:add(f.length, tvb(REQ_LENGTH, 2))

    local command, colon
    if kind == TYPE_START then
        colon = text:find(":", 1, true)
        local command_name = colon and text:sub(1, colon - 1) or text
        command = find_command(text)
        local command_item = tree:add(f.command, tvb(REQ_NAME, math.max(#command_name, 1)),
            command and command.name or command_name)
        if not command then
            command_item:add_proto_expert_info(ef.unknown_command, "The box knows no command \""
                .. command_name .. "\" and answers nothing")
        end
    end
    if not pinfo.visited and size <= REQUEST_MAX then
        learn_request(pinfo, kind, command)
    end
    local state = frames[pinfo.number] or {}
    command = command or state.command
    if kind ~= TYPE_START and command then
        tree:add(f.command, command.name):set_generated()
    end
    if (kind == TYPE_DATA or kind == TYPE_END) and state.start then
        tree:add(f.request_in, state.start):set_generated()
    end

    if (kind == TYPE_START or kind == TYPE_DATA) and not (command and command.mode == "exec") then
        local moved = math.min(length, WINDOW_MAX)
        if length > WINDOW_MAX then
            length_item:append_text(" (the box sends at most 512)")
        end
        if offset + moved > SESSION_SIZE then
            length_item:add_proto_expert_info(ef.window, "Offset " .. offset .. " + length "
                .. moved .. " reaches past 65536: the box abandons the transfer")
        end
    end

    local info = type_name
    if kind == TYPE_START then
        local param
        if command and command.params then
            param = command.params(tvb, tree, colon)
        elseif colon then
            tree:add(f.param, tvb(REQ_NAME + colon, math.max(#text - colon, 1)), text:sub(colon + 1))
        end
        info = info .. " " .. (command and command.name or text)
        if param then
            info = info .. " " .. param
        end
    elseif command then
        info = info .. " [" .. command.name .. "]"
    end
    if kind == TYPE_START or kind == TYPE_DATA then
        info = info .. string.format(" offset=%d length=%d", offset, length)
    end
    local data_item = tree
    if size > REQUEST_HEADER_SIZE then
        data_item = tree:add(f.data, tvb(REQ_DATA, size - REQ_DATA))
    end
    if kind == TYPE_START and command and command.query then
        command.query(tvb, data_item)
    end
    pinfo.cols.info:set(info)
end

---------------------------------------------------------------------------
-- DYP responses

local function check_text_field(tvb, tree, pos, size, what)
    local _, _, terminated = text_at(tvb, pos, size)
    if not terminated then
        tree:add_tvb_expert_info(ef.advertise, tvb(pos, size), what .. " is not terminated within its "
            .. size .. " bytes")
    end
end

local function dissect_advertise_reply(tvb, pinfo, tree)
    local size = tvb:len()
    tree:add(f.adv_type, tvb(0, 2))
    tree:add(f.marker, tvb(2, 2))
    if size ~= ADVERTISE_REPLY_SIZE then
        tree:add_proto_expert_info(ef.advertise, "Advertise reply of " .. size .. " bytes, expected 164")
        pinfo.cols.info:set("Advertise reply (" .. size .. " bytes)")
        return
    end
    tree:add(f.adv_product, tvb(ADV_PRODUCT, ADV_PRODUCT_SIZE), fixed_text(tvb, ADV_PRODUCT, ADV_PRODUCT_SIZE))
    check_text_field(tvb, tree, ADV_PRODUCT, ADV_PRODUCT_SIZE, "Product name")
    tree:add(f.adv_mac, tvb(ADV_MAC, 6))
    local one = tree:add(f.adv_one, tvb(ADV_ONE, 2))
    if tvb(ADV_ONE, 2):uint() ~= 1 then
        one:add_proto_expert_info(ef.advertise, "Bytes 64-65 are not 1")
    end
    tree:add(f.adv_ip, tvb(ADV_IP, 4))
    tree:add(f.adv_version, tvb(ADV_VERSION, ADV_VERSION_SIZE), fixed_text(tvb, ADV_VERSION, ADV_VERSION_SIZE))
    check_text_field(tvb, tree, ADV_VERSION, ADV_VERSION_SIZE, "Version")
    add_status_word(tree, f.adv_status, tvb(ADV_STATUS, 2))
    tree:add(f.adv_description, tvb(ADV_DESCRIPTION, ADV_DESCRIPTION_SIZE),
        fixed_text(tvb, ADV_DESCRIPTION, ADV_DESCRIPTION_SIZE))
    check_text_field(tvb, tree, ADV_DESCRIPTION, ADV_DESCRIPTION_SIZE, "Description")
    tree:add(f.adv_hostname, tvb(ADV_HOST, ADV_HOST_SIZE), fixed_text(tvb, ADV_HOST, ADV_HOST_SIZE))
    check_text_field(tvb, tree, ADV_HOST, ADV_HOST_SIZE, "Host name")
    pinfo.cols.info:set(string.format("Advertise reply %s (%s) %s %s", fixed_text(tvb, ADV_PRODUCT, ADV_PRODUCT_SIZE),
        fixed_text(tvb, ADV_HOST, ADV_HOST_SIZE), tostring(tvb(ADV_IP, 4):ipv4()),
        hex16(tvb(ADV_STATUS, 2):uint())))
end

-- Decodes a complete result under `tree`, from the frame's own bytes when
-- it came in this one window, else from a new data source.
local function show_result(tvb, pinfo, tree, state)
    local command = state.command
    if #state.result == 0 then
        tree:add_proto_expert_info(ef.truncated, "Empty result")
        return nil
    end
    local result
    if #state.window_frames == 1 and state.window_frames[1] == pinfo.number then
        result = tvb(RSP_DATA, #state.result):tvb()
    else
        result = ByteArray.new(state.result, true):tvb("Reassembled result")
    end
    local item = tree:add(f.result, result(0, result:len()))
    item:set_text(command.name .. " result (" .. result:len() .. " bytes)")
    item:add(f.result_length, result:len()):set_generated()
    item:add(f.result_windows, #state.window_frames):set_generated()
    for _, frame in ipairs(state.window_frames) do
        item:add(f.result_window, frame):set_generated()
    end
    return command.result(result, item)
end

local function dissect_response(tvb, pinfo, tree)
    local size = tvb:len()
    if size >= 4 and tvb:raw(0, 2) == ADVERTISE_REPLY_TYPE and tvb:raw(2, 2) == ADVERTISE_MARKER then
        dissect_advertise_reply(tvb, pinfo, tree)
        return
    end
    if size < RESPONSE_HEADER_SIZE then
        tree:add_proto_expert_info(ef.short, "Response of " .. size
            .. " bytes, shorter than the 8-byte header")
        pinfo.cols.info:set("Short response")
        return
    end
    local echo = tvb(RSP_TYPE, 2):uint()
    local status = tvb(RSP_STATUS, 2):uint()
    local offset = tvb(RSP_OFFSET, 2):uint()
    local length = tvb(RSP_LENGTH, 2):uint()
    local data_len = size - RSP_DATA

    local type_item = tree:add(f.type, tvb(RSP_TYPE, 2))
    if not TYPE_NAMES[echo] or echo == TYPE_ADVERTISE then
        type_item:add_proto_expert_info(ef.bad_type, "The box answers only START, DATA and END this way")
    end
    local status_item = tree:add(f.status, tvb(RSP_STATUS, 2))
    tree:add(f.offset, tvb(RSP_OFFSET, 2))
    local length_item = tree:add(f.length, tvb(RSP_LENGTH, 2))
    if size > RESPONSE_MAX then
        tree:add_proto_expert_info(ef.oversize, "Response of " .. size .. " bytes; the box sends at most 520")
    end

    if not pinfo.visited then
        learn_response(pinfo, tvb, echo, status, offset, length)
    end
    local state = frames[pinfo.number] or {}
    local command = state.command
    if command then
        tree:add(f.command, command.name):set_generated()
        tree:add(f.request_in, state.start):set_generated()
    else
        tree:add_proto_expert_info(ef.no_start, "The START of this transfer is not in the capture")
    end
    if state.request then
        tree:add(f.response_to, state.request):set_generated()
    end

    if status > 1 then
        status_item:add_proto_expert_info(ef.bad_status)
    end
    -- An acknowledgement of an upload or exec DATA packet repeats the
    -- request's length without carrying data.
    local acknowledgement = data_len == 0 and command and command.mode == "exec" and echo == TYPE_DATA
    if data_len ~= length and not acknowledgement and echo ~= TYPE_END then
        length_item:add_proto_expert_info(ef.length, "Length " .. length .. ", but the datagram carries "
            .. data_len .. " bytes after the header")
    elseif echo == TYPE_END and (data_len ~= 0 or offset ~= 0 or length ~= 0) then
        length_item:add_proto_expert_info(ef.length, "An END reply carries no window")
    end
    if not acknowledgement and offset + length > SESSION_SIZE then
        length_item:add_proto_expert_info(ef.window, "Offset " .. offset .. " + length " .. length
            .. " reaches past 65536")
    end
    if status == 1 and data_len == 0 and echo ~= TYPE_END then
        status_item:add_proto_expert_info(ef.empty_window)
    end
    if data_len > 0 then
        tree:add(f.data, tvb(RSP_DATA, data_len))
    end

    local info = "Reply " .. (TYPE_NAMES[echo] or ("type " .. echo))
    if command then
        info = info .. " [" .. command.name .. "]"
    end
    if echo ~= TYPE_END then
        info = info .. string.format(" offset=%d length=%d", offset, length)
    end
    if status == 1 and echo ~= TYPE_END then
        info = info .. " more"
    end
    if state.gap then
        tree:add_proto_expert_info(ef.gap, "Not every window of this result is in the capture")
    elseif state.result then
        local summary = show_result(tvb, pinfo, tree, state)
        if summary then
            info = info .. ": " .. summary
        end
    end
    pinfo.cols.info:set(info)
end

---------------------------------------------------------------------------
-- SKA

local function dissect_ska(tvb, pinfo, tree)
    local size = tvb:len()
    local echo = pinfo.src_port == SKA_PORT
    tree:add(sf.echo, echo):set_generated()
    local what = echo and "Keep-alive echo" or "Keep-alive"
    if size < SKA_MIN then
        tree:add_proto_expert_info(sef.short, "Packet of " .. size .. " bytes: the box ignores it")
        pinfo.cols.info:set(what .. " (short)")
        return
    end
    local length_item = tree:add(sf.length, tvb(0, 2))
    if tvb(0, 2):uint() ~= size then
        length_item:add_proto_expert_info(sef.length, "Length " .. tvb(0, 2):uint() .. ", datagram "
            .. size .. " bytes: the box ignores it")
    end
    if size > SKA_MAX then
        tree:add_proto_expert_info(sef.oversize, "Packet of " .. size .. " bytes; the box reads 4084")
    end
    local magic_item = tree:add(sf.magic, tvb(2, 2))
    if tvb(2, 2):uint() ~= SKA_MAGIC then
        magic_item:add_proto_expert_info(sef.magic, "Magic " .. hex16(tvb(2, 2):uint())
            .. ": the box ignores the packet")
    end
    local names = {}
    local pos = SKA_HEADER_SIZE
    local closed = false
    while pos < size do
        local name, used, terminated = text_at(tvb, pos, size - pos)
        if not terminated then
            tree:add_tvb_expert_info(sef.unterminated, tvb(pos, used))
            break
        end
        if name == "" then
            closed = true
            pos = pos + 1
            break
        end
        local item = tree:add(sf.name, tvb(pos, used), name)
        if #name >= IFNAME_SIZE then
            item:add_proto_expert_info(sef.cut, "The driver gets the first 15 characters")
        end
        names[#names + 1] = name
        pos = pos + used
    end
    if tvb:raw(size - 2, 2) ~= "\0\0" then
        tree:add_proto_expert_info(sef.no_end,
            "Packet does not end in two NULs: the box echoes it but does not pass the names on")
    elseif closed and pos < size then
        tree:add_tvb_expert_info(sef.trailing, tvb(pos, size - pos))
    end
    pinfo.cols.info:set(what .. " " .. table.concat(names, ", "))
end

---------------------------------------------------------------------------
-- Registration

-- Runs a dissection; a fault in this file becomes expert info, since a Lua
-- error would hide the rest of the capture's meaning.
local function guarded(proto, column, fault, body)
    return function(tvb, pinfo, tree)
        pinfo.cols.protocol = column
        local subtree = tree:add(proto, tvb())
        local ok, message = pcall(body, tvb, pinfo, subtree)
        if not ok then
            subtree:add_proto_expert_info(fault, "Dissector fault: " .. tostring(message))
        end
        return tvb:len()
    end
end

dyp.dissector = guarded(dyp, "DYP", ef.internal, function(tvb, pinfo, tree)
    if dyp_ports[pinfo.src_port] then
        dissect_response(tvb, pinfo, tree)
    else
        dissect_request(tvb, pinfo, tree)
    end
end)

ska.dissector = guarded(ska, "SKA", sef.internal, dissect_ska)

dyp.prefs.extra_ports = Pref.range("Extra DYP ports", "",
    "UDP ports, besides 19540 and 19541, on which a box answers DYP", 65535)

local udp_port = DissectorTable.get("udp.port")
local extra_ports = {}

-- The ports of a range preference such as "5000,6000-6002".
local function range_ports(text)
    local ports = {}
    for item in tostring(text or ""):gmatch("[^,%s]+") do
        local first, last = item:match("^(%d+)-(%d+)$")
        first = tonumber(first or item)
        last = tonumber(last or first)
        if first and last then
            for port = first, math.min(last, 65535) do
                ports[#ports + 1] = port
            end
        end
    end
    return ports
end

function dyp.prefs_changed()
    for _, port in ipairs(extra_ports) do
        udp_port:remove(port, dyp)
        dyp_ports[port] = nil
    end
    extra_ports = {}
    for _, port in ipairs(range_ports(dyp.prefs.extra_ports)) do
        if not dyp_ports[port] then
            udp_port:add(port, dyp)
            dyp_ports[port] = true
            extra_ports[#extra_ports + 1] = port
        end
    end
end

udp_port:add(19540, dyp)
udp_port:add(19541, dyp)
udp_port:add(SKA_PORT, ska)
