-- qvagent.lua: a Wireshark/tshark dissector for everything that travels between the reporting agent
-- and the collector: numbered datagrams of every kind with their records and option and parameter
-- entries, the collector's acknowledgements, the flush notice and KPI packets.
--
-- Load it with `tshark -X lua_script:qvagent.lua ...`, or copy it into Wireshark's personal plugin
-- folder (~/.local/lib/wireshark/plugins/). It registers on the collector's UDP ports 6010-6014; the
-- preference "qvagent.base_port" moves them (a collector started with --base-port), and
-- "Decode As... > qvagent" works on any port pair, taking the lower port as the log port.
--
-- Field names follow the collector's JSON keys, so that what qvcollector prints and what this shows
-- can be set side by side. Numbered heads and KPI packets are big-endian except the two stream fields;
-- records and their entries are little-endian (the device's order).

local qv = Proto("qvagent", "libqvagent agent-collector protocol")

-- Layout constants, the same as in include/qvagent/qv_agent_wire.h.
local SHORT_HEAD_LEN = 8          -- alarm datagrams, flush notice, acknowledgements
local STREAM_HEAD_LEN = 20        -- every other numbered kind
local FLAG_BYTE_ORDER, FLAG_STREAM_START, FLAG_ACK = 0x04, 0x40, 0x80
local MSG_NUMBERED, MSG_FLUSH, MSG_KPI = 1, 2, 4
local STREAM_TYPE_LOG, STREAM_TYPE_OTHER = 1, 2
local REC_TYPE_LOG, REC_TYPE_ALARM = 1, 2
local LOG_HEAD_LEN, ALARM_HEAD_LEN = 48, 40
local REC_FORMATTED_OPT_WORD = 0xAAAAAA01
local OPT_MARKER = 0xAAAAAA00
local REC_KIND_DEBUG = 8
local OPT_SERVICE_NAME = 67
local KPI_HEAD_LEN, KPI_REC_LEN, KPI_COMPONENT_OFFSET = 12, 28, 10000
local PORT_LOG, PORT_ALARM, PORT_KPI, PORT_DEBUG = 0, 1, 3, 4   -- offsets from the base port (2: high-precision log)
local PORT_KIND = { [0] = "log", "alarm", "hplog", "kpi", "debug" }

local msg_types = { [MSG_NUMBERED] = "numbered datagram", [MSG_FLUSH] = "flush notice", [MSG_KPI] = "KPI packet" }
local stream_types = { [STREAM_TYPE_LOG] = "log", [STREAM_TYPE_OTHER] = "other kind" }
local rec_types = { [REC_TYPE_LOG] = "log", [REC_TYPE_ALARM] = "alarm" }
local kpi_modes = { [0] = "on_change", [1] = "always" }

local f = {
    length = ProtoField.uint16("qvagent.length", "Total length"),
    flags = ProtoField.uint8("qvagent.flags", "Flags", base.HEX),
    flag_order = ProtoField.bool("qvagent.flags.byte_order", "Byte order", 8, nil, FLAG_BYTE_ORDER),
    flag_start = ProtoField.bool("qvagent.flags.stream_start", "Stream start", 8, nil, FLAG_STREAM_START),
    flag_ack = ProtoField.bool("qvagent.flags.ack", "Acknowledgement", 8, nil, FLAG_ACK),
    msg_type = ProtoField.uint8("qvagent.msg_type", "Message type", base.DEC, msg_types),
    kind = ProtoField.string("qvagent.kind", "Kind"),
    seq = ProtoField.uint32("qvagent.seq", "Sequence number"),
    ack = ProtoField.uint32("qvagent.ack", "Acknowledged sequence number"),
    stream_type = ProtoField.uint16("qvagent.stream_type", "Stream type", base.DEC, stream_types),
    stream_len = ProtoField.uint16("qvagent.stream_len", "Stream length"),
    stream_data = ProtoField.bytes("qvagent.stream_data", "Stream data"),

    record = ProtoField.none("qvagent.record", "Record"),
    rec_type = ProtoField.uint16("qvagent.rec.type", "Record type", base.DEC, rec_types),
    rec_len = ProtoField.uint16("qvagent.rec.length", "Record length"),
    form = ProtoField.string("qvagent.log.form", "Form"),
    head_word = ProtoField.uint32("qvagent.log.head_word", "Head word", base.HEX),
    vrid = ProtoField.uint32("qvagent.log.vrid", "VRID"),
    log_id = ProtoField.uint32("qvagent.log.log_id", "Log id", base.HEX),
    log_reserved = ProtoField.uint32("qvagent.log.reserved", "Reserved"),
    log_para_num = ProtoField.uint16("qvagent.log.para_num", "Parameters"),
    level = ProtoField.uint8("qvagent.log.level", "Level"),
    obj_kind = ProtoField.uint8("qvagent.log.obj_kind", "Object kind"),
    mono_ms = ProtoField.uint64("qvagent.log.mono_ms", "Monotonic ms"),
    alarm_reserved0 = ProtoField.uint32("qvagent.alarm.reserved0", "Reserved"),
    alarm_reserved1 = ProtoField.uint32("qvagent.alarm.reserved1", "Reserved"),
    alarm_id = ProtoField.uint32("qvagent.alarm.alarm_id", "Alarm id", base.HEX),
    attr_marker = ProtoField.uint8("qvagent.alarm.attr_marker", "Attribute marker", base.HEX),
    alarm_para_num = ProtoField.uint8("qvagent.alarm.para_num", "Parameters"),
    attr_byte = ProtoField.uint8("qvagent.alarm.attr_byte", "Attribute byte"),
    category = ProtoField.uint8("qvagent.alarm.category", "Category"),
    attr_word = ProtoField.uint32("qvagent.alarm.attr_word", "Attribute word", base.HEX),
    time = ProtoField.string("qvagent.time", "Time"),
    opt_word = ProtoField.uint32("qvagent.rec.opt_word", "Option count word", base.HEX),
    opt_count = ProtoField.uint32("qvagent.rec.opt_count", "Options"),
    option = ProtoField.none("qvagent.option", "Option"),
    param = ProtoField.none("qvagent.param", "Parameter"),
    entry_type = ProtoField.uint16("qvagent.entry.type", "Type"),
    entry_len = ProtoField.uint16("qvagent.entry.len", "Length"),
    entry_as = ProtoField.string("qvagent.entry.as", "Read as"),
    entry_value = ProtoField.string("qvagent.entry.value", "Value"),
    block_len = ProtoField.uint16("qvagent.entry.block_len", "Block length"),
    key_word1 = ProtoField.uint32("qvagent.debug.key_word1", "Key word 1", base.HEX),
    text = ProtoField.string("qvagent.debug.text", "Text"),

    kpi_reserved = ProtoField.uint32("qvagent.kpi.reserved", "Reserved"),
    kpi_records = ProtoField.uint32("qvagent.kpi.records", "Records"),
    kpi_record = ProtoField.none("qvagent.kpi.record", "KPI record"),
    component = ProtoField.uint16("qvagent.kpi.component", "Component"),
    component_id = ProtoField.uint16("qvagent.kpi.component_id", "Component id"),
    kpi_id = ProtoField.uint32("qvagent.kpi.kpi", "KPI"),
    object = ProtoField.uint32("qvagent.kpi.object", "Object"),
    sub_object = ProtoField.uint16("qvagent.kpi.sub_object", "Sub-object"),
    cpu = ProtoField.uint8("qvagent.kpi.cpu", "CPU"),
    local_id_a = ProtoField.uint8("qvagent.kpi.local_id_a", "Local id A"),
    local_id_b = ProtoField.uint8("qvagent.kpi.local_id_b", "Local id B"),
    kpi_flag = ProtoField.uint8("qvagent.kpi.flag", "Flag", base.HEX),
    mode = ProtoField.uint8("qvagent.kpi.mode", "Report mode", base.DEC, kpi_modes, 0x0C),
    report = ProtoField.string("qvagent.kpi.report", "Report"),
    value = ProtoField.uint64("qvagent.kpi.value", "Value"),
    kpi_time = ProtoField.uint32("qvagent.kpi.time", "Time (s since 1970)"),
    time_utc = ProtoField.string("qvagent.kpi.time_utc", "Time (UTC)"),
}
local field_list = {}
for _, field in pairs(f) do field_list[#field_list + 1] = field end
qv.fields = field_list

local malformed = ProtoExpert.new("qvagent.malformed", "Malformed qvagent message", expert.group.MALFORMED,
                                  expert.severity.ERROR)
qv.experts = { malformed }

qv.prefs.base_port = Pref.uint("Base port", 6010,
    "The collector's log port; the alarm, high-precision log, KPI and debug ports follow it")

-- Adds an error to the tree item; returns nil so that callers can `return bad(...)`.
local function bad(item, why)
    item:add_proto_expert_info(malformed, why)
    return nil
end

-- ---- entry values -------------------------------------------------------------------------------

local function wall_time(r)
    return string.format("%04u-%02u-%02u %02u:%02u:%02u.%03u", r(0, 2):le_uint(), r(2, 1):uint(),
                         r(3, 1):uint(), r(4, 1):uint(), r(5, 1):uint(), r(6, 1):uint(), r(8, 4):le_uint())
end

local function hex(r)
    if r:len() == 0 then return "" end
    return string.lower(tostring(r:bytes():tohex()))
end

-- The bytes of a zero-terminated text: up to its first zero, or all of them.
local function text_before_zero(r)
    local s = r:len() > 0 and r:raw() or ""
    local z = s:find("\0", 1, true)
    return z and s:sub(1, z - 1) or s
end

local function mac(r)
    local parts = {}
    for i = 0, r:len() - 1 do parts[#parts + 1] = string.format("%02x", r(i, 1):uint()) end
    return table.concat(parts, ":")
end

-- Each reader takes the value's range and its length and returns how it was read and the text, or
-- nothing when the length does not suit the type (the value is then shown as hex).
local option_readers = {
    [OPT_SERVICE_NAME] = function(r, n) return "text", n > 0 and r:raw() or "" end,
    [10] = function(r, n)
        if n ~= 4 then return end
        local w = r:le_uint()
        return "position", string.format("local_id_b %u, local_id_a %u, cpu %u", bit.rshift(w, 24),
                                         bit.band(bit.rshift(w, 16), 0xFF), bit.band(bit.rshift(w, 8), 0xFF))
    end,
    [38] = function(r, n) if n == 12 then return "wall_time", wall_time(r) end end,
    [80] = function(r, n)
        if n ~= 52 then return end
        local words = {}
        for i = 0, 4 do words[#words + 1] = tostring(r(32 + 4 * i, 4):le_uint()) end
        return "process_info", text_before_zero(r(0, 32)) .. " [" .. table.concat(words, ", ") .. "]"
    end,
}
for _, t in ipairs({ 8, 11, 16, 79 }) do
    option_readers[t] = function(r, n) if n == 4 then return "u32", tostring(r:le_uint()) end end
end
for _, t in ipairs({ 20, 21 }) do
    option_readers[t] = function(r, n) if n == 2 then return "u16", tostring(r:le_uint()) end end
end

local function fixed(len, as, read)
    return function(r, n) if n == len then return as, read(r) end end
end

-- Parameters of logs by identifier and debug logs: the format analyser's type codes.
local format_readers = {
    [0] = function(_, n) if n == 0 then return "none", "" end end,
    [1] = fixed(8, "u64", function(r) return tostring(r:le_uint64()) end),
    [2] = fixed(8, "i64", function(r) return tostring(r:le_int64()) end),
    [3] = fixed(4, "u32", function(r) return tostring(r:le_uint()) end),
    [4] = fixed(4, "i32", function(r) return tostring(r:le_int()) end),
    [6] = fixed(1, "char", function(r) return r:raw() end),
    [10] = fixed(2, "u16", function(r) return tostring(r:le_uint()) end),
    [11] = fixed(2, "i16", function(r) return tostring(r:le_int()) end),
    [15] = fixed(4, "hex32", function(r) return string.format("0x%08x", r:le_uint()) end),
    [16] = function(r) return "string", text_before_zero(r) end,
    [17] = fixed(4, "ipv4", function(r)
        local a = r:le_uint()
        return string.format("%u.%u.%u.%u", bit.rshift(a, 24), bit.band(bit.rshift(a, 16), 0xFF),
                             bit.band(bit.rshift(a, 8), 0xFF), bit.band(a, 0xFF))
    end),
    [19] = fixed(16, "ipv6", function(r) return tostring(r:ipv6()) end),
    [25] = fixed(7, "datetime", function(r)
        return string.format("%04u-%02u-%02u %02u:%02u:%02u", r(0, 2):le_uint(), r(2, 1):uint(), r(3, 1):uint(),
                             r(4, 1):uint(), r(5, 1):uint(), r(6, 1):uint())
    end),
    [27] = fixed(6, "mac", mac),
    [29] = function(r, n) if n >= 2 then return "block", n > 2 and hex(r(2)) or "" end end,
    [30] = function(r) return "bytes", hex(r) end,
}

-- Parameters of event objects: the service chooses the types; 25 is text.
local object_readers = { [25] = function(r) return "text", text_before_zero(r) end }

-- One entry (u16 type, u16 length, value) at offset `off` of the record range; returns the offset
-- after it, or nil when it does not fit.
local function add_entry(tree, rec, off, field, readers)
    if off + 4 > rec:len() then return bad(tree, "entry head cut short at offset " .. off) end
    local etype, n = rec(off, 2):le_uint(), rec(off + 2, 2):le_uint()
    if off + 4 + n > rec:len() then
        return bad(tree, string.format("entry at offset %u of %u value bytes runs past the record end", off, n))
    end
    local item = tree:add(field, rec(off, 4 + n))
    item:add_le(f.entry_type, rec(off, 2))
    item:add_le(f.entry_len, rec(off + 2, 2))
    local vr = n > 0 and rec(off + 4, n) or rec(off + 4, 0)
    local as, text
    if readers[etype] then as, text = readers[etype](vr, n) end
    if not as then as, text = "hex", hex(vr) end
    item:add(f.entry_as, as):set_generated()
    item:add(f.entry_value, vr, text)
    if as == "block" then item:add_le(f.block_len, rec(off + 4, 2)) end
    item:append_text(string.format(": type %u, %s %s", etype, as, text))
    return off + 4 + n
end

-- ---- records --------------------------------------------------------------------------------------

-- Options then parameters filling the record from `off` to its end; the head gives the number of
-- parameters, the options are the rest.
local function add_filled_entries(tree, rec, off, para_num, opt_word)
    local offsets = {}
    local o = off
    while o < rec:len() do
        offsets[#offsets + 1] = o
        o = o + 4 + (o + 4 <= rec:len() and rec(o + 2, 2):le_uint() or 0)
    end
    if o ~= rec:len() then return bad(tree, "entries run past the record end") end
    local options = #offsets - para_num
    if options < 0 then return bad(tree, "more parameters in the head than entries in the record") end
    -- Plain arithmetic: the bit library's results are signed.
    local marked = opt_word - opt_word % 256 == OPT_MARKER
    if opt_word ~= (marked and OPT_MARKER + options or options) then
        bad(tree, string.format("option count word 0x%08x does not match %u options", opt_word, options))
    end
    tree:add(f.opt_count, options):set_generated()
    for i = 1, #offsets do
        if i <= options then
            add_entry(tree, rec, offsets[i], f.option, option_readers)
        else
            add_entry(tree, rec, offsets[i], f.param, object_readers)
        end
    end
end

-- Logs by identifier and debug logs: the service-name option, the parameters, and for debug logs
-- the second key word and the text with its terminating zero.
local function add_formatted_entries(tree, rec, para_num, debug)
    tree:add(f.opt_count, 1):set_generated()
    local off = add_entry(tree, rec, LOG_HEAD_LEN, f.option, option_readers)
    for _ = 1, para_num do
        if not off then return end
        off = add_entry(tree, rec, off, f.param, format_readers)
    end
    if not off then return end
    if not debug then
        if off ~= rec:len() then bad(tree, (rec:len() - off) .. " bytes after the parameters") end
        return
    end
    if off + 5 > rec:len() then return bad(tree, "debug tail cut short") end
    tree:add_le(f.key_word1, rec(off, 4))
    local t = rec(off + 4)
    if t(t:len() - 1, 1):uint() ~= 0 then bad(tree, "debug text without its terminating zero") end
    tree:add(f.text, t, text_before_zero(t))
end

local function add_log(tree, rec)
    if rec:len() < LOG_HEAD_LEN then return bad(tree, "log record shorter than its head") end
    local opt_word, kind = rec(44, 4):le_uint(), rec(23, 1):uint()
    local para_num = rec(20, 2):le_uint()
    local formatted = opt_word == REC_FORMATTED_OPT_WORD and rec(LOG_HEAD_LEN, 2):le_uint() == OPT_SERVICE_NAME
    local form = not formatted and "object" or (kind == REC_KIND_DEBUG and "debug" or "by_id")
    tree:add(f.form, form):set_generated()
    tree:add_le(f.head_word, rec(4, 4))
    tree:add_le(f.vrid, rec(8, 4))
    tree:add_le(f.log_id, rec(12, 4))
    tree:add_le(f.log_reserved, rec(16, 4))
    tree:add_le(f.log_para_num, rec(20, 2))
    tree:add(f.level, rec(22, 1))
    tree:add(f.obj_kind, rec(23, 1))
    tree:add(f.time, rec(24, 12), wall_time(rec(24, 12)))
    tree:add(f.mono_ms, rec(36, 8), UInt64(rec(40, 4):le_uint(), rec(36, 4):le_uint()))
    tree:add_le(f.opt_word, rec(44, 4))
    tree:append_text(string.format(", log id 0x%08x (%s)", rec(12, 4):le_uint(), form))
    if kind == REC_KIND_DEBUG and form ~= "debug" then
        return bad(tree, "debug record without the one service-name option")
    end
    if form == "object" then return add_filled_entries(tree, rec, LOG_HEAD_LEN, para_num, opt_word) end
    add_formatted_entries(tree, rec, para_num, form == "debug")
end

local function add_alarm(tree, rec)
    if rec:len() < ALARM_HEAD_LEN then return bad(tree, "alarm record shorter than its head") end
    tree:add_le(f.alarm_reserved0, rec(4, 4))
    tree:add_le(f.alarm_reserved1, rec(8, 4))
    tree:add_le(f.alarm_id, rec(12, 4))
    tree:add(f.attr_marker, rec(16, 1))
    tree:add(f.alarm_para_num, rec(17, 1))
    tree:add(f.attr_byte, rec(18, 1))
    tree:add(f.category, rec(19, 1))
    tree:add_le(f.attr_word, rec(20, 4))
    tree:add(f.time, rec(24, 12), wall_time(rec(24, 12)))
    tree:add_le(f.opt_word, rec(36, 4))
    tree:append_text(string.format(", alarm id 0x%08x", rec(12, 4):le_uint()))
    add_filled_entries(tree, rec, ALARM_HEAD_LEN, rec(17, 1):uint(), rec(36, 4):le_uint())
end

-- Records laid end to end after the head; returns how many were shown.
local function add_records(tree, body)
    local off, count = 0, 0
    while off < body:len() do
        if off + 4 > body:len() then return count, bad(tree, "record head cut short") end
        local rtype, n = body(off, 2):le_uint(), body(off + 2, 2):le_uint()
        if n < 4 or off + n > body:len() then
            return count, bad(tree, string.format("record length field %u at offset %u does not fit", n, off))
        end
        local rec = body(off, n)
        local item = tree:add(f.record, rec)
        item:set_text(string.format("Record %u: %s", count, rec_types[rtype] or "unknown"))
        item:add_le(f.rec_type, rec(0, 2))
        item:add_le(f.rec_len, rec(2, 2))
        if rtype == REC_TYPE_LOG then
            add_log(item, rec)
        elseif rtype == REC_TYPE_ALARM then
            add_alarm(item, rec)
        else
            bad(item, "unknown record type " .. rtype)
        end
        off, count = off + n, count + 1
    end
    return count
end

-- ---- KPI packets ----------------------------------------------------------------------------------

local function utc(seconds)
    return os.date("!%Y-%m-%dT%H:%M:%SZ", seconds)
end

local function add_kpi_packet(tree, tvb, pinfo)
    if tvb:len() < KPI_HEAD_LEN then return bad(tree, "shorter than a KPI packet head") end
    tree:add(f.kpi_reserved, tvb(4, 4))
    tree:add(f.kpi_records, tvb(8, 4))
    local records = tvb(8, 4):uint()
    if (tvb:len() - KPI_HEAD_LEN) ~= records * KPI_REC_LEN then
        return bad(tree, string.format("record count %u for %u bytes of records", records, tvb:len() - KPI_HEAD_LEN))
    end
    pinfo.cols.info:append(string.format(": %u records", records))
    for i = 0, records - 1 do
        local r = tvb(KPI_HEAD_LEN + i * KPI_REC_LEN, KPI_REC_LEN)
        local item = tree:add(f.kpi_record, r)
        local component = r(0, 2):uint()
        item:add(f.component, r(0, 2))
        item:add(f.component_id, r(0, 2), (component - KPI_COMPONENT_OFFSET) % 65536):set_generated()
        item:add(f.kpi_id, r(2, 4))
        item:add(f.object, r(6, 4))
        item:add(f.sub_object, r(10, 2))
        item:add(f.cpu, r(12, 1))
        item:add(f.local_id_a, r(13, 1))
        item:add(f.local_id_b, r(14, 1))
        item:add(f.kpi_flag, r(15, 1))
        item:add(f.mode, r(15, 1))
        item:add(f.report, r(15, 1), kpi_modes[bit.rshift(bit.band(r(15, 1):uint(), 0x0C), 2)] or "on_change")
            :set_generated()
        item:add(f.value, r(16, 8))
        item:add(f.kpi_time, r(24, 4))
        item:add(f.time_utc, r(24, 4), utc(r(24, 4):uint())):set_generated()
        item:set_text(string.format("KPI record %u: component %u, KPI %u, object %u.%u, value %s", i,
                                    component, r(2, 4):uint(), r(6, 4):uint(), r(10, 2):uint(),
                                    tostring(r(16, 8):uint64())))
    end
end

-- ---- datagrams ------------------------------------------------------------------------------------

local function add_head_start(tree, tvb)
    tree:add(f.length, tvb(0, 2))
    local flags = tree:add(f.flags, tvb(2, 1))
    flags:add(f.flag_order, tvb(2, 1))
    flags:add(f.flag_start, tvb(2, 1))
    flags:add(f.flag_ack, tvb(2, 1))
    tree:add(f.msg_type, tvb(3, 1))
end

-- The kind of a log-port message, by its stream type: socket mode sends debug logs there too.
local function log_port_kind(tvb)
    local st = tvb(8, 2):le_uint()
    if st == STREAM_TYPE_LOG then return "log" end
    if st == STREAM_TYPE_OTHER then return "debug" end
end

-- An acknowledgement from the collector port at offset `port` from the base.
local function dissect_ack(tree, tvb, pinfo, port)
    local kind = PORT_KIND[port]
    if port == PORT_LOG then
        if tvb:len() < 12 then return bad(tree, "acknowledgement from the log port without its stream type") end
        tree:add_le(f.stream_type, tvb(8, 2))
        kind = log_port_kind(tvb) or kind
    end
    tree:add(f.ack, tvb(4, 4))
    tree:add(f.kind, kind):set_generated()
    pinfo.cols.info = string.format("ack %s seq %u", kind, tvb(4, 4):uint())
end

-- A datagram to the collector port at offset `port` from the base.
local function dissect_to_collector(tree, tvb, pinfo, port)
    local msg_type, flags = tvb(3, 1):uint(), tvb(2, 1):uint()
    local kind = PORT_KIND[port]
    if tvb(0, 2):uint() ~= tvb:len() then
        bad(tree, string.format("length field %u for %u bytes", tvb(0, 2):uint(), tvb:len()))
    end
    if msg_type == MSG_KPI then
        tree:add(f.kind, kind):set_generated()
        pinfo.cols.info = "KPI packet"
        if port ~= PORT_KPI then return bad(tree, "KPI packet on the " .. kind .. " port") end
        return add_kpi_packet(tree, tvb, pinfo)
    end
    tree:add(f.seq, tvb(4, 4))
    local seq = tvb(4, 4):uint()
    if msg_type == MSG_FLUSH then
        tree:add(f.kind, kind):set_generated()
        pinfo.cols.info = "flush notice"
        return
    end
    if msg_type ~= MSG_NUMBERED then return bad(tree, "unknown message type " .. msg_type) end
    if port == PORT_KPI then return bad(tree, "numbered datagram on the KPI port") end
    local head_len = port == PORT_ALARM and SHORT_HEAD_LEN or STREAM_HEAD_LEN
    if tvb:len() < head_len then return bad(tree, "shorter than the head of its kind") end
    if head_len == STREAM_HEAD_LEN then
        tree:add_le(f.stream_type, tvb(8, 2))
        tree:add_le(f.stream_len, tvb(10, 2))
        tree:add(f.stream_data, tvb(12, 8))
        if port == PORT_LOG then
            kind = log_port_kind(tvb)
            if not kind then return bad(tree, "stream type " .. tvb(8, 2):le_uint() .. " on the log port") end
        end
    end
    tree:add(f.kind, kind):set_generated()
    local count = 0
    if tvb:len() > head_len then count = add_records(tree, tvb(head_len)) end
    local start = bit.band(flags, FLAG_STREAM_START) ~= 0 and " stream start" or ""
    pinfo.cols.info = string.format("%s seq %u%s: %u records", kind, seq, start, count)
end

local function base_port() return qv.prefs.base_port end

-- The port offset of a collector port, or nil.
local function port_offset(p, base)
    if p >= base and p <= base + PORT_DEBUG then return p - base end
end

function qv.dissector(tvb, pinfo, root)
    if tvb:len() < SHORT_HEAD_LEN then return 0 end
    pinfo.cols.protocol = "QVAGENT"
    local tree = root:add(qv, tvb())
    add_head_start(tree, tvb)
    local base = base_port()
    local to_port = port_offset(pinfo.dst_port, base)
    local from_port = port_offset(pinfo.src_port, base)
    if not to_port and not from_port then
        -- Decode As on other ports: the lower of the two is taken as the log port.
        base = math.min(pinfo.src_port, pinfo.dst_port)
        to_port = port_offset(pinfo.dst_port, base)
        from_port = port_offset(pinfo.src_port, base)
    end
    local ack = bit.band(tvb(2, 1):uint(), FLAG_ACK) ~= 0
    if to_port then
        if ack then
            bad(tree, "an acknowledgement sent to the collector")
        else
            dissect_to_collector(tree, tvb, pinfo, to_port)
        end
    elseif ack then
        dissect_ack(tree, tvb, pinfo, from_port)
    else
        bad(tree, "a reply from the collector without the acknowledgement flag")
    end
    return tvb:len()
end

-- ---- registration ---------------------------------------------------------------------------------

local udp_table = DissectorTable.get("udp.port")
local registered

local function register_ports()
    if registered then
        for p = registered, registered + PORT_DEBUG do udp_table:remove(p, qv) end
    end
    registered = base_port()
    for p = registered, registered + PORT_DEBUG do udp_table:add(p, qv) end
end

function qv.prefs_changed() register_ports() end

register_ports()
