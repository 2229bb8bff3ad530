-- Wireshark dissector for the frames libTAVRO exchanges with a switch on TCP
-- ports 58991 (SNMP agent) and 58992 (PCE process).
--
-- A frame is a 12-byte control header (marker, manager class, size), then a
-- 28-byte application header and the payload; the link test header is a
-- control header alone. The sender writes every header word in its own byte
-- order, and the marker tells which: "MSG:" reads as itself in a big-endian
-- frame and as ":GSM" in a little-endian one.
--
-- Load with `tshark -X lua_script:/path/to/tavro.lua`, or put this file and
-- tavro_codes.lua (generated from the library's code table) in a Wireshark
-- plugin folder. Written for Wireshark 4.0 with Lua 5.2.

-- Loaded twice (as a plugin and with -X): the first one stays.
local found, existing = pcall(Dissector.get, "tavro")
if found and existing then return end

-- The code names live beside this file.
local function load_codes()
    local dir = debug.getinfo(1, "S").source:match("^@(.*[/\\])") or ""
    local ok, codes = pcall(dofile, dir .. "tavro_codes.lua")
    if not ok or type(codes) ~= "table" then
        error("tavro.lua: cannot load tavro_codes.lua beside it: " .. tostring(codes))
    end
    return codes
end
local codes = load_codes()
local names, values = codes.names, codes.values

local PORTS = { 58991, 58992 }
local CTL_SIZE, APP_SIZE = 12, 28
local MAX_BODY = 2559936 -- the library's receive buffer: a larger frame is refused
local SIZE_MASK, ORDER_FLAG = 0x7FFFFFFF, 0x80000000

local MARKER, TEST = values.ORV_MSG_MARKER, values.ORV_MSG_TEST
local MSG_COMMAND, MSG_RESPONSE = values.MSG_COMMAND, values.MSG_RESPONSE
local CMD_RAW_STATS = values.CMD_GET_BLADE_RAW_STATS

-- Raw statistics reply: a 6-byte head, then one entry per port.
local STATS_HEAD, STATS_ENTRY, STATS_COUNTERS, STATS_FORMAT = 6, 951, 59, 1

local function swap32(v)
    return bit32.bor(bit32.lshift(bit32.band(v, 0xFF), 24), bit32.lshift(bit32.band(v, 0xFF00), 8),
        bit32.band(bit32.rshift(v, 8), 0xFF00), bit32.rshift(v, 24))
end

local proto = Proto("tavro", "TAVRO switch protocol")

local link_states = { [0] = "down", [1] = "up" }
local f = {
    marker = ProtoField.uint32("tavro.marker", "Marker", base.HEX, names.MSG_MARKER),
    order = ProtoField.string("tavro.order", "Byte order"),
    linktest = ProtoField.none("tavro.linktest", "Link test header"),
    manager = ProtoField.uint32("tavro.manager", "Manager class", base.DEC, names.MGR_CLASS),
    size = ProtoField.uint32("tavro.size", "Size", base.DEC),
    sizeflag = ProtoField.bool("tavro.size.flag", "Network-order flag"),
    msgtype = ProtoField.uint32("tavro.msgtype", "Message type", base.HEX, names.MSG_TYPE),
    cmd = ProtoField.uint32("tavro.cmd", "Command code", base.DEC, names.COMMAND_CODE),
    seq = ProtoField.uint32("tavro.seq", "Sequence number", base.DEC),
    control = ProtoField.uint32("tavro.control", "Command control", base.DEC, names.CMD_CONTROL),
    status = ProtoField.uint32("tavro.status", "Response status", base.DEC, names.RSP_STATUS),
    src = ProtoField.uint32("tavro.src", "Source address", base.DEC),
    apperr = ProtoField.int32("tavro.apperr", "Application error", base.DEC, names.I_STATUS),
    appsize = ProtoField.uint32("tavro.appsize", "Payload size", base.DEC),
    appflag = ProtoField.bool("tavro.appsize.flag", "Network-order flag"),
    payload = ProtoField.bytes("tavro.payload", "Payload"),
    entries = ProtoField.uint16("tavro.stats.entries", "Entries", base.DEC),
    slot = ProtoField.uint16("tavro.stats.slot", "Slot", base.DEC),
    format = ProtoField.uint16("tavro.stats.format", "Format", base.DEC),
    port = ProtoField.uint16("tavro.stats.port", "Port", base.DEC),
    link = ProtoField.uint8("tavro.stats.link", "Link", base.DEC, link_states),
    speed = ProtoField.uint32("tavro.stats.speed", "Speed (Mbit/s)", base.DEC),
    rx = ProtoField.uint64("tavro.stats.rx", "Receive counter", base.DEC),
    tx = ProtoField.uint64("tavro.stats.tx", "Transmit counter", base.DEC),
}
proto.fields = f

local e = {
    marker = ProtoExpert.new("tavro.bad_marker", "Not a frame start", expert.group.MALFORMED, expert.severity.ERROR),
    size = ProtoExpert.new("tavro.bad_size", "Frame size the library refuses", expert.group.MALFORMED,
        expert.severity.ERROR),
    short = ProtoExpert.new("tavro.short_frame", "Frame shorter than its application header", expert.group.MALFORMED,
        expert.severity.ERROR),
    appsize = ProtoExpert.new("tavro.appsize_mismatch", "Payload size disagrees with the frame size",
        expert.group.PROTOCOL, expert.severity.WARN),
    flag = ProtoExpert.new("tavro.flag_on_wire", "Network-order flag on the wire (an in-memory mark, never sent)",
        expert.group.PROTOCOL, expert.severity.WARN),
    stats = ProtoExpert.new("tavro.stats_bad", "Raw statistics reply cannot be read", expert.group.MALFORMED,
        expert.severity.WARN),
}
proto.experts = e

-- Byte order of the frame starting at `offset`: little-endian (true/false)
-- and whether it is a link test header; nil when the marker is neither.
local function frame_order(tvb, offset)
    local m = tvb(offset, 4):uint()
    if m == MARKER then return false, false end
    if m == swap32(MARKER) then return true, false end
    if m == TEST then return false, true end
    if m == swap32(TEST) then return true, true end
    return nil
end

local function word(range, le)
    return le and range:le_uint() or range:uint()
end

local function add(tree, field, range, le)
    if le then return tree:add_le(field, range) end
    return tree:add(field, range)
end

-- A size word: bits 0-30 the size, bit 31 the network-order flag, which
-- only ever marks a header in memory and is shown when it is on the wire.
local function add_size(tree, size_field, flag_field, range, le)
    local v = word(range, le)
    tree:add(size_field, range, bit32.band(v, SIZE_MASK))
    if bit32.band(v, ORDER_FLAG) ~= 0 then
        tree:add(flag_field, range, true):add_proto_expert_info(e.flag)
    end
end

-- Frame length for dissect_tcp_pdus. After a bad header the library throws
-- away whatever is waiting, so the rest of the segment goes with it.
local function pdu_length(tvb, pinfo, offset)
    local le, test = frame_order(tvb, offset)
    if le == nil then return tvb:len() - offset end
    if test then return CTL_SIZE end
    local size = bit32.band(word(tvb(offset + 8, 4), le), SIZE_MASK)
    if size == 0 or size > MAX_BODY then return tvb:len() - offset end
    return CTL_SIZE + size
end

-- Info column: the frames of one segment, joined.
local frames_in_segment = 0
local function info(pinfo, text)
    frames_in_segment = frames_in_segment + 1
    if frames_in_segment == 1 then pinfo.cols.info:set(text) else pinfo.cols.info:append(" | " .. text) end
end

-- A message type as its four characters ("CMD:"), or in hex if not printable.
local function four_chars(v)
    local s = ""
    for shift = 24, 0, -8 do
        local c = bit32.band(bit32.rshift(v, shift), 0xFF)
        if c < 0x20 or c > 0x7E then return string.format("0x%08X", v) end
        s = s .. string.char(c)
    end
    return s
end

local function name_of(space, v)
    return names[space][v] or tostring(v)
end

local function dissect_raw_stats(payload, pinfo, tree)
    local st = tree:add(proto, payload, "Raw statistics")
    if payload:len() < STATS_HEAD then
        st:add_proto_expert_info(e.stats, "shorter than the 6-byte head")
        return
    end
    local le
    if payload(4, 2):uint() == STATS_FORMAT then
        le = false
    elseif payload(4, 2):le_uint() == STATS_FORMAT then
        le = true
    else
        st:add_proto_expert_info(e.stats, "unknown format " .. payload(4, 2):uint())
        return
    end
    local n = word(payload(0, 2), le)
    add(st, f.entries, payload(0, 2), le)
    add(st, f.slot, payload(2, 2), le)
    add(st, f.format, payload(4, 2), le)
    local whole = math.floor((payload:len() - STATS_HEAD) / STATS_ENTRY)
    if whole < n then
        st:add_proto_expert_info(e.stats, string.format("%d entries announced, %d present", n, whole))
        n = whole
    end
    st:append_text(string.format(": slot %d, %d ports, %s", word(payload(2, 2), le), n,
        le and "little-endian" or "big-endian"))
    for i = 0, n - 1 do
        local r = payload(STATS_HEAD + i * STATS_ENTRY, STATS_ENTRY)
        local pt = st:add(proto, r, string.format("Port %d: link %s, %d Mbit/s", word(r(0, 2), le),
            link_states[r(2, 1):uint()] or r(2, 1):uint(), word(r(3, 4), le)))
        add(pt, f.port, r(0, 2), le)
        pt:add(f.link, r(2, 1))
        add(pt, f.speed, r(3, 4), le)
        for dir, field in ipairs({ f.rx, f.tx }) do
            local label = dir == 1 and "rx" or "tx"
            local base_off = 7 + (dir - 1) * STATS_COUNTERS * 8
            local ct = pt:add(proto, r(base_off, STATS_COUNTERS * 8),
                dir == 1 and "Receive counters" or "Transmit counters")
            for c = 0, STATS_COUNTERS - 1 do
                local cr = r(base_off + c * 8, 8)
                local item = add(ct, field, cr, le)
                item:set_text(string.format("%s[%d]: %s", label, c, tostring(le and cr:le_uint64() or cr:uint64())))
            end
        end
    end
end

-- One frame; tvb holds exactly it.
local function dissect_frame(tvb, pinfo, tree)
    pinfo.cols.protocol = "TAVRO"
    local le, test = frame_order(tvb, 0)
    local t = tree:add(proto, tvb())

    if le == nil then
        t:add(f.marker, tvb(0, 4))
        t:add_proto_expert_info(e.marker, string.format("Not a frame start: marker 0x%08X (%d bytes dropped)",
            tvb(0, 4):uint(), tvb:len()))
        t:append_text(": bad marker")
        info(pinfo, string.format("Bad marker 0x%08X", tvb(0, 4):uint()))
        return tvb:len()
    end

    local order = le and "little-endian" or "big-endian"
    local ctl = t:add(proto, tvb(0, CTL_SIZE), "Control header")
    add(ctl, f.marker, tvb(0, 4), le)
    ctl:add(f.order, tvb(0, 4), order)
    add(ctl, f.manager, tvb(4, 4), le)
    add_size(ctl, f.size, f.sizeflag, tvb(8, 4), le)

    if test then
        t:add(f.linktest, tvb(0, CTL_SIZE))
        t:append_text(", link test, " .. order)
        info(pinfo, "TST: link test " .. name_of("MGR_CLASS", word(tvb(4, 4), le)))
        return CTL_SIZE
    end

    local size = bit32.band(word(tvb(8, 4), le), SIZE_MASK)
    if size == 0 or size > MAX_BODY then
        ctl:add_proto_expert_info(e.size, size == 0 and "Size 0: the application header is missing"
            or string.format("Size %d exceeds the library's %d-byte receive buffer", size, MAX_BODY))
        info(pinfo, "Bad size " .. size)
        return tvb:len()
    end
    if size < APP_SIZE then
        t:add_proto_expert_info(e.short, string.format("Size %d leaves no room for the %d-byte application header",
            size, APP_SIZE))
        info(pinfo, "Short frame")
        return tvb:len()
    end

    local app = t:add(proto, tvb(CTL_SIZE, APP_SIZE), "Application header")
    local a = function(at) return tvb(CTL_SIZE + at, 4) end
    local msgtype, cmd, seq, stat = word(a(0), le), word(a(4), le), word(a(8), le), word(a(12), le)
    add(app, f.msgtype, a(0), le)
    add(app, f.cmd, a(4), le)
    add(app, f.seq, a(8), le)
    local stat_text
    if msgtype == MSG_COMMAND then
        add(app, f.control, a(12), le)
        stat_text = name_of("CMD_CONTROL", stat)
    else
        add(app, f.status, a(12), le)
        stat_text = name_of("RSP_STATUS", stat)
    end
    add(app, f.src, a(16), le)
    add(app, f.apperr, a(20), le)
    add_size(app, f.appsize, f.appflag, a(24), le)
    local appsize = bit32.band(word(a(24), le), SIZE_MASK)
    local paylen = size - APP_SIZE
    if appsize ~= paylen then
        app:add_proto_expert_info(e.appsize, string.format("Payload size %d, but the frame carries %d bytes",
            appsize, paylen))
    end

    local summary = string.format("%s %s seq=%d %s", four_chars(msgtype), name_of("COMMAND_CODE", cmd), seq, stat_text)
    if msgtype ~= MSG_COMMAND and word(a(20), le) ~= 0 then
        local err = word(a(20), le)
        if err >= 0x80000000 then err = err - 0x100000000 end
        summary = summary .. " err=" .. name_of("I_STATUS", err)
    end
    t:append_text(", " .. summary .. ", " .. order)
    info(pinfo, summary)

    if paylen > 0 then
        local payload = tvb(CTL_SIZE + APP_SIZE, paylen)
        t:add(f.payload, payload)
        if cmd == CMD_RAW_STATS then
            if msgtype == MSG_RESPONSE then
                dissect_raw_stats(payload, pinfo, t)
            elseif msgtype == MSG_COMMAND and paylen >= 2 then
                add(t, f.slot, payload(0, 2), le)
            end
        end
    end
    return tvb:len()
end

function proto.dissector(tvb, pinfo, tree)
    frames_in_segment = 0
    dissect_tcp_pdus(tvb, tree, CTL_SIZE, pdu_length, dissect_frame, true)
    return tvb:len()
end

local tcp_ports = DissectorTable.get("tcp.port")
for _, port in ipairs(PORTS) do tcp_ports:add(port, proto) end
