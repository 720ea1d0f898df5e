-- SPDX-License-Identifier: MIT
--
-- Shows the messages of UsbHal in Wireshark and tshark: in USB bulk transfers of devices whose class is
-- vendor specific, in captures that began too late to know the class, and in captures of type USER0.

local usbhal = Proto("usbhal", "UsbHal ports over USB")

local NO_DATA, DELAY, MAGIC, PORT_OPENED = "DEVICE_NODATA", "DEVICE_WTSEND", "FADA", "DEVICE_CONN"
local HEADER_SIZE = 13
local UNCOUNTED_SIZE = 9 -- magic and length, which the length leaves out
local LONGEST_PENDING = 1048576 -- bytes of a port's stream that wait for a dissector's next message
local VENDOR_SPECIFIC = 0xff

local KINDS = { [1] = "No data", [2] = "Maximum read size", [3] = "Delay", [4] = "Data", [5] = "Port opened again",
                [6] = "Rejected" }
local KIND = { no_data = 1, max_read_size = 2, delay = 3, data = 4, port_opened = 5, rejected = 6 }
local HOST, DEVICE = "host", "device"

local f = usbhal.fields
f.kind = ProtoField.uint8("usbhal.kind", "Kind", base.DEC, KINDS)
f.length = ProtoField.uint32("usbhal.length", "Length", base.DEC, nil, nil, "Bytes of the port and the payload")
f.port = ProtoField.uint32("usbhal.port", "Port", base.DEC)
f.payload = ProtoField.bytes("usbhal.payload", "Payload")
f.max_read_size = ProtoField.uint32("usbhal.max_read_size", "Maximum read size", base.DEC)
f.consumed = ProtoField.uint32("usbhal.consumed", "Consumed", base.DEC, nil, nil, "Bytes that the receiver takes")
f.rejected = ProtoField.bytes("usbhal.rejected", "Rejected", base.SPACE, "What the receiver drops")
f.from_host = ProtoField.bool("usbhal.from_host", "From the host")
f.answer_time = ProtoField.relative_time("usbhal.answer_time", "Time since the host's transfer")

local all_fields = { f.kind, f.length, f.port, f.payload, f.max_read_size, f.consumed, f.rejected, f.from_host,
                     f.answer_time }

local e = usbhal.experts
e.wrong_size = ProtoExpert.new("usbhal.wrong_size", "Wrong size: the rest of the transfer is dropped",
                               expert.group.MALFORMED, expert.severity.ERROR)
e.cut = ProtoExpert.new("usbhal.cut", "The transfer ends within the message: it is dropped",
                        expert.group.MALFORMED, expert.severity.ERROR)
e.invalid_id = ProtoExpert.new("usbhal.invalid_id", "The port is no number: the rest of the transfer is dropped",
                               expert.group.MALFORMED, expert.severity.ERROR)
e.not_valid = ProtoExpert.new("usbhal.not_valid", "No message begins here: the rest of the transfer is dropped",
                              expert.group.MALFORMED, expert.severity.ERROR)
e.behind_delay = ProtoExpert.new("usbhal.behind_delay", "Bytes behind DEVICE_WTSEND: it is not valid with them",
                                 expert.group.MALFORMED, expert.severity.ERROR)
e.bad_max_read_size = ProtoExpert.new("usbhal.bad_max_read_size", "The maximum read size is 0",
                                      expert.group.PROTOCOL, expert.severity.WARN)
e.turn_device = ProtoExpert.new("usbhal.turn_device", "The device writes twice without a read",
                                expert.group.SEQUENCE, expert.severity.WARN)
e.turn_host = ProtoExpert.new("usbhal.turn_host", "The host writes again before the device has answered",
                              expert.group.SEQUENCE, expert.severity.NOTE)
e.delay_ignored = ProtoExpert.new("usbhal.delay_ignored", "The host sends data though the device asked for a delay",
                                  expert.group.SEQUENCE, expert.severity.WARN)
e.slow = ProtoExpert.new("usbhal.slow", "The device answers slowly", expert.group.SEQUENCE, expert.severity.WARN)

usbhal.prefs.slow = Pref.uint("Slow answers, in ms", 1000, "From which time on an answer of the device is told as slow")
usbhal.prefs.ports = Pref.string("Protocols of ports", "",
                                 "Ports and the dissectors of what they carry, such as 3:http,5:json")
usbhal.prefs.statistics = Pref.bool("Statistics at the end of tshark", false,
                                    "Print bytes, messages, rates and delays of each port when tshark ends")

local mapped_ports = {}
local port_table = DissectorTable.new("usbhal.port", "UsbHal port", ftypes.UINT32, base.DEC, usbhal)

-- ---- cutting a transfer into messages ----

local function fault(kind, rest_size)
    return { kind = KIND.rejected, size = rest_size, fault = kind }
end

-- A message of a port, without a look at what follows it.
local function cut_data(bytes, at, rest_size)
    local length = tonumber(bytes:match("^%d%d%d%d%d", at + 4))
    if not length or length < 4 then
        return fault("wrong_size", rest_size)
    end
    local size = length + UNCOUNTED_SIZE
    if size > rest_size then
        return fault("cut", rest_size)
    end
    local port = tonumber(bytes:match("^%d%d%d%d", at + 9))
    if not port then
        return fault("invalid_id", rest_size)
    end
    local opened = size == HEADER_SIZE + #PORT_OPENED and bytes:sub(at + HEADER_SIZE, at + size - 1) == PORT_OPENED
    return { kind = opened and KIND.port_opened or KIND.data, size = size, length = length, port = port }
end

-- The host takes 18 bytes of it when the size is there; a device takes 13 and looks at what follows.
local function cut_no_data(bytes, at, from_host)
    local digits = not from_host and bytes:match("^%d%d%d%d%d", at + #NO_DATA)
    if digits then
        return { kind = KIND.max_read_size, size = #NO_DATA + #digits, max_read_size = tonumber(digits) }
    end
    return { kind = KIND.no_data, size = #NO_DATA }
end

local function cut_message(bytes, at, from_host)
    local rest_size = #bytes - at + 1
    if bytes:sub(at, at + #NO_DATA - 1) == NO_DATA then
        return cut_no_data(bytes, at, from_host)
    end
    if bytes:sub(at, at + #DELAY - 1) == DELAY then
        return rest_size == #DELAY and { kind = KIND.delay, size = #DELAY } or fault("behind_delay", rest_size)
    end
    if bytes:sub(at, at + #MAGIC - 1) == MAGIC then
        return cut_data(bytes, at, rest_size)
    end
    return fault("not_valid", rest_size)
end

-- The messages of a transfer, each with its offset; a rejected one is the last.
local function cut(bytes, from_host)
    local messages, at = {}, 1
    while at <= #bytes do
        local message = cut_message(bytes, at, from_host)
        message.offset = at - 1
        messages[#messages + 1] = message
        at = at + message.size
    end
    return messages
end

local function is_faultless(messages)
    return #messages > 0 and not messages[#messages].fault
end

-- ---- what one transfer tells of another ----

-- Of the packet that was dissected last, for statistics: a field extractor would have Wireshark make the
-- tree of every packet.
local shown = {}
local asked_for -- whether a filter, a column or a tap wants a field; nil: to be found out
local slow_answer = 1e6 -- us, as the preference says
local links = {} -- by device: what the transfers so far have left behind
local endpoints = {} -- by address: the link, and from which side the heuristics have recognised it
local answer_times = {} -- by frame
local notes = {} -- by frame: what else was found out when it was seen first

function usbhal.init()
    links, endpoints, answer_times, notes = {}, {}, {}, {}
    asked_for = nil
end

local function link_of(device)
    local link = links[device]
    if not link then
        link = { streams = {} }
        links[device] = link
    end
    return link
end

local function note_of(number)
    local note = notes[number]
    if not note then
        note = { experts = {}, before = {} }
        notes[number] = note
    end
    return note
end

local function see_host(link, number, time, messages)
    if link.last == HOST then
        table.insert(note_of(number).experts, "turn_host")
    end
    if link.delayed then
        for _, message in ipairs(messages) do
            if message.port then
                table.insert(note_of(number).experts, "delay_ignored")
                break
            end
        end
    end
    link.last, link.host_time = HOST, time
end

local function see_device(link, number, time, messages)
    if link.last == DEVICE then
        table.insert(note_of(number).experts, "turn_device")
    elseif link.host_time then
        local answer_time = math.floor((time - link.host_time) * 1e6 + 0.5) -- us; a double holds no more
        answer_times[number] = answer_time
        if answer_time >= slow_answer then
            table.insert(note_of(number).experts, "slow")
        end
    end
    for _, message in ipairs(messages) do
        if message.kind == KIND.delay then
            link.delayed = true
        elseif message.kind == KIND.no_data or message.kind == KIND.max_read_size then
            link.delayed = false
        end
    end
    link.last = DEVICE
end

local function see(link, number, time, messages, from_host)
    local see_side = from_host and see_host or see_device
    see_side(link, number, time, messages)
end

-- ---- the payloads of a port ----

-- Puts what the dissector below has left of earlier messages before this one's payload.
local function stream_tvb(range, before)
    if #before == 0 then
        return range:tvb()
    end
    local joined = ByteArray.new(before, true)
    joined:append(range:bytes())
    return joined:tvb("UsbHal port stream")
end

local function keep_rest(stream, tvb, pinfo)
    stream.pending = ""
    if pinfo.desegment_len ~= 0 and tvb:len() - pinfo.desegment_offset <= LONGEST_PENDING then
        stream.pending = tvb:raw(pinfo.desegment_offset)
    end
    pinfo.desegment_len, pinfo.desegment_offset = 0, 0
end

local function dissect_payload(range, pinfo, tree, message, stream_key, link, index)
    local dissector = port_table:get_dissector(message.port)
    if not dissector then
        return
    end
    local stream = link.streams[stream_key] or { pending = "" }
    link.streams[stream_key] = stream
    if not pinfo.visited and #stream.pending > 0 then
        note_of(pinfo.number).before[index] = stream.pending
    end
    local note = notes[pinfo.number]
    local tvb = stream_tvb(range, note and note.before[index] or "")
    pinfo.can_desegment = 2
    pinfo.desegment_len, pinfo.desegment_offset = 0, 0
    dissector:call(tvb, pinfo, tree)
    keep_rest(pinfo.visited and {} or stream, tvb, pinfo)
    pinfo.can_desegment = 0
end

-- ---- what is shown ----

local TITLES = {
    [KIND.no_data] = function() return "No data" end,
    [KIND.max_read_size] = function(message) return "Maximum read size " .. message.max_read_size end,
    [KIND.delay] = function() return "Delay" end,
    [KIND.data] = function(message) return ("Port %d: %d B"):format(message.port, message.length - 4) end,
    [KIND.port_opened] = function(message) return ("Port %d opened again"):format(message.port) end,
    [KIND.rejected] = function(message) return "Rejected: " .. message.size .. " B" end,
}

local SHORT = {
    [KIND.no_data] = function() return "NODATA" end,
    [KIND.max_read_size] = function(message) return "MAX " .. message.max_read_size end,
    [KIND.delay] = function() return "DELAY" end,
    [KIND.data] = function(message) return ("%d: %d B"):format(message.port, message.length - 4) end,
    [KIND.port_opened] = function(message) return message.port .. ": CONN" end,
    [KIND.rejected] = function(message) return "REJECTED " .. message.fault end,
}

local LONGEST_INFO = 20 -- messages that the column names

local function info_of(messages)
    if #messages == 1 then
        return SHORT[messages[1].kind](messages[1])
    end
    local texts = {}
    for at = 1, math.min(#messages, LONGEST_INFO) do
        texts[at] = SHORT[messages[at].kind](messages[at])
    end
    if #messages > LONGEST_INFO then
        texts[#texts + 1] = (#messages - LONGEST_INFO) .. " more"
    end
    return table.concat(texts, " | ")
end

local function show_data(tvb, tree, message)
    tree:add(f.length, tvb(message.offset + 4, 5), message.length)
    tree:add(f.port, tvb(message.offset + 9, 4), message.port)
    if message.length > 4 then
        tree:add(f.payload, tvb(message.offset + HEADER_SIZE, message.length - 4))
    end
end

local function show_message(tvb, tree, message)
    local range = tvb(message.offset, message.size)
    local item = tree:add(usbhal, range, TITLES[message.kind](message))
    item:add(f.kind, range, message.kind)
    if message.fault then
        item:add(f.rejected, range)
        return
    end
    item:add(f.consumed, range, message.size):set_generated()
    if message.port then
        show_data(tvb, item, message)
    elseif message.max_read_size then
        local size = item:add(f.max_read_size, tvb(message.offset + #NO_DATA, 5), message.max_read_size)
        if message.max_read_size == 0 then
            size:add_proto_expert_info(e.bad_max_read_size)
        end
    end
end

local function show_answer_time(tvb, tree, microseconds)
    local seconds = math.floor(microseconds / 1e6)
    local time = NSTime.new(seconds, (microseconds - seconds * 1e6) * 1000)
    tree:add(f.answer_time, tvb(), time):set_generated()
end

local function show_experts(tree, number, last_message)
    local note = notes[number]
    if note then
        for _, name in ipairs(note.experts) do
            tree:add_proto_expert_info(e[name])
        end
    end
    if last_message.fault then
        tree:add_proto_expert_info(e[last_message.fault])
    end
end

local function show_payloads(tvb, pinfo, tree, messages, link, from_host)
    for index, message in ipairs(messages) do
        if message.port and message.length > 4 then
            local payload = tvb(message.offset + HEADER_SIZE, message.length - 4)
            local stream_key = message.port .. (from_host and HOST or DEVICE)
            dissect_payload(payload, pinfo, tree, message, stream_key, link, index)
        end
    end
end

local function find_out_asked_for(tree)
    for _, field in ipairs(all_fields) do
        if tree:referenced(field) then
            return true
        end
    end
    return false
end

-- Where nobody asks for the fields they are not made: most packets are only listed. That does not change
-- while packets come for the first time; when a filter is set, those are gone through that came before.
local function is_asked_for(tree, visited)
    if asked_for == nil or visited then
        asked_for = tree.visible or find_out_asked_for(tree)
    end
    return asked_for
end

local function show(tvb, pinfo, tree, messages, link, from_host)
    local columns, number = pinfo.cols, pinfo.number
    shown.number, shown.messages, shown.from_host = number, messages, from_host
    columns.protocol = "UsbHal"
    columns.info = info_of(messages)
    local top = tree:add(usbhal, tvb)
    if is_asked_for(top, pinfo.visited) then
        top:set_text(("UsbHal, %s, %d message%s"):format(
            from_host and "from the host" or "from the device", #messages, #messages == 1 and "" or "s"))
        top:add(f.from_host, from_host):set_generated()
        if answer_times[number] then
            show_answer_time(tvb, top, answer_times[number])
        end
        for _, message in ipairs(messages) do
            show_message(tvb, top, message)
        end
    end
    show_experts(top, number, messages[#messages])
    if next(mapped_ports) then
        show_payloads(tvb, pinfo, tree, messages, link, from_host)
    end
end

-- ---- where transfers come from ----

local NO_ENDPOINT = 4294967295 -- what the host's side has for a port

-- The addresses of USB are "host" and "bus.device.endpoint".
local function endpoint_of(pinfo)
    local from_host = pinfo.src_port == NO_ENDPOINT
    local address = tostring(from_host and pinfo.dst or pinfo.src)
    local endpoint = endpoints[address]
    if not endpoint then
        endpoint = { link = link_of(address:match("^%d+%.%d+") or address) }
        endpoints[address] = endpoint
    end
    return endpoint, from_host
end

local function dissect(tvb, pinfo, tree, link, from_host, messages)
    if not pinfo.visited then
        see(link, pinfo.number, pinfo.abs_ts, messages, from_host)
    end
    show(tvb, pinfo, tree, messages, link, from_host)
end

function usbhal.dissector(tvb, pinfo, tree)
    if tvb:len() == 0 then
        return 0
    end
    local endpoint, from_host = endpoint_of(pinfo)
    dissect(tvb, pinfo, tree, endpoint.link, from_host, cut(tvb:raw(), from_host))
    return tvb:len()
end

-- Of foreign traffic nothing is taken: an endpoint has to begin with a transfer without a fault.
local function recognise(tvb, pinfo, tree)
    if tvb:len() == 0 then
        return false
    end
    local endpoint, from_host = endpoint_of(pinfo)
    local side = from_host and HOST or DEVICE
    local messages = cut(tvb:raw(), from_host)
    if not endpoint[side] then
        if not is_faultless(messages) then
            return false
        end
        endpoint[side] = true
    end
    dissect(tvb, pinfo, tree, endpoint.link, from_host, messages)
    return true
end

-- Without a USB header only the messages tell the sides: these are the device's.
local function seems_from_device(bytes)
    return bytes:sub(1, #DELAY) == DELAY or bytes:find("^" .. NO_DATA .. "%d%d%d%d%d$") ~= nil
end

local bare = Proto("usbhal_bare", "UsbHal transfers without USB")

function bare.dissector(tvb, pinfo, tree)
    if tvb:len() == 0 then
        return 0
    end
    local bytes = tvb:raw()
    local from_host = not seems_from_device(bytes)
    if pinfo.p2p_dir == P2P_DIR_SENT or pinfo.p2p_dir == P2P_DIR_RECV then
        from_host = pinfo.p2p_dir == P2P_DIR_SENT
    end
    show(tvb, pinfo, tree, cut(bytes, from_host), link_of("bare"), from_host)
    return tvb:len()
end

DissectorTable.get("usb.bulk"):add(VENDOR_SPECIFIC, usbhal)
usbhal:register_heuristic("usb.bulk", recognise)
DissectorTable.get("wtap_encap"):add(wtap.USER0, bare)

-- ---- statistics ----

local Statistics = {}
Statistics.__index = Statistics

function Statistics.new()
    return setmetatable({ rows = {}, delays = 0, delay_time = 0 }, Statistics)
end

function Statistics:row(port, from_host)
    local key = port * 2 + (from_host and 0 or 1)
    self.rows[key] = self.rows[key] or { port = port, from_host = from_host, messages = 0, bytes = 0 }
    return self.rows[key]
end

function Statistics:add_delay(kind, time)
    if kind == KIND.delay and not self.delayed_since then
        self.delays, self.delayed_since = self.delays + 1, time
    elseif kind ~= KIND.delay and self.delayed_since then
        self.delay_time, self.delayed_since = self.delay_time + time - self.delayed_since, nil
    end
end

function Statistics:add_message(message, from_host, time)
    if message.port then
        local row = self:row(message.port, from_host)
        row.messages, row.bytes = row.messages + 1, row.bytes + message.length - 4
    elseif not from_host and not message.fault then
        self:add_delay(message.kind, time)
    end
end

-- A tap sees a packet right after the dissector.
function Statistics:add(pinfo)
    if shown.number ~= pinfo.number then
        return
    end
    local time = pinfo.abs_ts
    self.first, self.last = self.first or time, time
    for _, message in ipairs(shown.messages) do
        self:add_message(message, shown.from_host, time)
    end
end

function Statistics:text()
    local seconds = self.first and self.last - self.first or 0
    local lines = { ("%-6s %-12s %10s %14s %14s"):format("port", "from", "messages", "bytes", "bytes/s") }
    local keys = {}
    for key in pairs(self.rows) do
        keys[#keys + 1] = key
    end
    table.sort(keys)
    for _, key in ipairs(keys) do
        local row = self.rows[key]
        lines[#lines + 1] = ("%-6d %-12s %10d %14d %14s"):format(
            row.port, row.from_host and HOST or DEVICE, row.messages, row.bytes,
            seconds > 0 and ("%.1f"):format(row.bytes / seconds) or "-")
    end
    local delay_time = self.delay_time + (self.delayed_since and self.last - self.delayed_since or 0)
    lines[#lines + 1] = ("%d delays, %.3f s in all, of %.3f s"):format(self.delays, delay_time, seconds)
    return table.concat(lines, "\n") .. "\n"
end

local function open_window()
    local statistics = Statistics.new()
    local window = TextWindow.new("UsbHal: ports and delays")
    local tap = Listener.new("frame", "usbhal")
    tap.packet = function(pinfo) statistics:add(pinfo) end
    tap.draw = function() window:set(statistics:text()) end
    tap.reset = function() statistics = Statistics.new() end
    window:set_atclose(function() tap:remove() end)
    retap_packets()
end

local printing = false

local function print_at_end()
    if printing or gui_enabled() then
        return
    end
    printing = true
    local statistics = Statistics.new()
    local tap = Listener.new("frame", "usbhal")
    tap.packet = function(pinfo) statistics:add(pinfo) end
    tap.draw = function() print(statistics:text()) end
end

register_menu("UsbHal/Ports and delays", open_window, MENU_STAT_UNSORTED)

-- ---- preferences ----

local function map_ports(text)
    for port, dissector in pairs(mapped_ports) do
        port_table:remove(port, dissector)
    end
    mapped_ports = {}
    for port, name in text:gmatch("(%d+):([%w%-_.]+)") do
        local found, dissector = pcall(Dissector.get, name)
        if found and dissector then
            mapped_ports[tonumber(port)] = dissector
            port_table:add(tonumber(port), dissector)
        else
            report_failure("UsbHal: there is no dissector '" .. name .. "'; correct the preference of port " .. port)
        end
    end
end

function usbhal.prefs_changed()
    slow_answer = usbhal.prefs.slow * 1000
    map_ports(usbhal.prefs.ports)
    if usbhal.prefs.statistics then
        print_at_end()
    end
end
