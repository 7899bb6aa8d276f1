-- The identity protocol for Wireshark and tshark: TCP port 1306 and, with the session's keys, TLS port 1308. Another port: "Decode As".
--
-- A request states its length modulo 65,536, so its fields show where it ends. When they reach beyond the stated length, either the
-- request is a long one or something in it is damaged: it is damaged when the bytes of a segment end exactly where it should
-- end, or when the next request begins there.

local keldwick = Proto("keldwick", "Keldwick Identity Protocol")

local HeaderBytes, AnswerBytes, MostBytes = 14, 14, 8 * 1024 * 1024
local RequestCode, AnswerCode, Format = 0x0010, 0x8010, 3
local AgentWaits = 20  -- seconds for an answer

local Codes = { [RequestCode] = "request", [AnswerCode] = "answer" }
local Kinds = { [0x20] = "logon", [0x30] = "heartbeat", [0x21] = "logoff" }
local Systems = {
    [0] = "older than Windows 5.1", [1] = "5.1 server", [2] = "5.1 workstation", [4] = "6.0 workstation", [5] = "6.0 server",
    [6] = "6.1 server", [7] = "6.1 workstation", [8] = "6.2 workstation", [9] = "6.2 server", [10] = "6.3 server",
    [11] = "6.3 workstation", [12] = "10.0 or later",
}

local field = {
    length = ProtoField.uint16("keldwick.length", "Length, modulo 65,536"),
    format = ProtoField.uint16("keldwick.format", "Format"),
    code = ProtoField.uint16("keldwick.code", "Message code", base.HEX, Codes),
    id = ProtoField.uint32("keldwick.id", "Request ID"),
    mask = ProtoField.uint32("keldwick.mask", "Field mask", base.HEX),
    maskUser = ProtoField.bool("keldwick.mask.user", "User block", 32, nil, 0x01C0),
    maskComputer = ProtoField.bool("keldwick.mask.computer", "Computer block", 32, nil, 0x0038),
    constant14 = ProtoField.uint8("keldwick.constant14", "Constant at 14", base.HEX),
    constant15 = ProtoField.uint16("keldwick.constant15", "Constant at 15", base.HEX),
    constant17 = ProtoField.uint16("keldwick.constant17", "Constant at 17", base.HEX),
    addressVersion = ProtoField.uint8("keldwick.address_version", "Address version", base.DEC,
                                      { [0] = "no address", [4] = "IPv4", [6] = "IPv6" }),
    ipv4 = ProtoField.ipv4("keldwick.ipv4", "Address"),
    ipv6 = ProtoField.ipv6("keldwick.ipv6", "Address"),
    agentTag = ProtoField.uint8("keldwick.agent.tag", "Constant before the agent's version", base.HEX),
    agentMajor = ProtoField.uint8("keldwick.agent.major", "Agent's major version"),
    agentMinor = ProtoField.uint8("keldwick.agent.minor", "Agent's minor version"),
    agentPatch = ProtoField.uint8("keldwick.agent.patch", "Agent's patch version"),
    osCode = ProtoField.uint8("keldwick.os.code", "Operating system", base.DEC, Systems),
    osMajor = ProtoField.uint8("keldwick.os.major", "Operating system's major version"),
    osMinor = ProtoField.uint8("keldwick.os.minor", "Operating system's minor version"),
    units = ProtoField.uint16("keldwick.units", "UTF-16 units"),
    computer = ProtoField.string("keldwick.computer", "Computer"),
    computerDn = ProtoField.string("keldwick.computer.dn", "Computer's DN"),
    computerOu = ProtoField.string("keldwick.computer.ou", "Computer's OU path"),
    user = ProtoField.string("keldwick.user", "User"),
    userDn = ProtoField.string("keldwick.user.dn", "User's DN"),
    userOu = ProtoField.string("keldwick.user.ou", "User's OU path"),
    groupCount = ProtoField.uint16("keldwick.group.count", "Groups"),
    groupStart = ProtoField.uint8("keldwick.group.start", "Constant before the groups", base.HEX),
    group = ProtoField.string("keldwick.group", "Group"),
    groupDn = ProtoField.string("keldwick.group.dn", "Group's DN"),
    kind = ProtoField.uint8("keldwick.kind", "Report kind", base.HEX, Kinds),
    status = ProtoField.uint32("keldwick.status", "Status"),
    rest = ProtoField.bytes("keldwick.rest", "Bytes of no field"),
    size = ProtoField.uint32("keldwick.size", "Bytes in all"),
    answerIn = ProtoField.framenum("keldwick.response_in", "Answered in", base.NONE, frametype.RESPONSE),
    requestIn = ProtoField.framenum("keldwick.response_to", "Answer to", base.NONE, frametype.REQUEST),
    time = ProtoField.relative_time("keldwick.time", "Time to the answer"),
}

local function Expert(name, text, group, severity)
    return ProtoExpert.new("keldwick." .. name, text, expert.group[group], expert.severity[severity])
end
local note = {
    length = Expert("wrong_length", "Wrong length", "MALFORMED", "ERROR"),
    value = Expert("wrong_value", "Not what the protocol says", "MALFORMED", "ERROR"),
    stray = Expert("stray", "Bytes that begin no message", "MALFORMED", "WARN"),
    cut = Expert("cut", "Not captured whole", "UNDECODED", "WARN"),
    noGroups = Expert("groups_not_sent", "Groups are counted, but not sent", "PROTOCOL", "NOTE"),
    unasked = Expert("unasked", "No request with this ID waits for an answer", "SEQUENCE", "WARN"),
    late = Expert("late", "The agent no longer waits for this answer", "SEQUENCE", "WARN"),
    pieces = Expert("pieces", "The answer came in pieces, the agent takes the first for all of it", "SEQUENCE", "WARN"),
    unanswered = Expert("unanswered", "The request before has no answer yet", "SEQUENCE", "NOTE"),
}
keldwick.fields, keldwick.experts = field, note

local streamOf = Field.new("tcp.stream")
local waiting  -- by stream: the requests without an answer by ID, the last one, how far an unfinished request must have come
local matched  -- by kind of message, frame and ID: what the first pass found out

function keldwick.init() waiting, matched = {}, {} end

local function Stream()
    local number = streamOf()
    number = number and number.value or -1
    waiting[number] = waiting[number] or { open = {} }
    return waiting[number]
end

-- Reading. A message is read into a list of items { field, at, size } before anything is shown, since its end may still be missing.
-- Then the reading, a coroutine, waits where it is; what is damaged so that the fields cannot be followed ends it with an error.

local READER = {}
READER.__index = READER

-- what: the reading.
local function NewReader(start, what)
    return setmetatable({ start = start, have = 0, at = 0, wanted = 0, items = {}, reading = coroutine.create(what) }, READER)
end

-- Reads on with the message's bytes, of which there may be more than before. Afterwards it is `whole`, or `wanted` says how many bytes
-- it must have to get further, or `damage` what ended it.
function READER:ReadOn(tvb)
    self.tvb, self.have = tvb, tvb:captured_len()
    if self.have < self.wanted then return end
    local fine, result = coroutine.resume(self.reading, self)
    if not fine and type(result) ~= "table" then error(result, 0) end
    self.wanted, self.damage = fine and result or nil, not fine and result or nil
    self.whole = fine and not result
end

-- rest: how many bytes at least must follow these.
function READER:Need(size, rest)
    while self.at + size > self.have do coroutine.yield(self.at + size + (rest or 0)) end
end

function READER:Add(what, size, rest)
    self:Need(size, rest)
    local item = { field = what, at = self.at, size = size, section = self.section }
    table.insert(self.items, item)
    self.at = self.at + size
    return item
end

function READER:Mark(item, why, text, ...)
    item.notes = item.notes or {}
    table.insert(item.notes, { why = why, text = string.format(text, ...) })
end

-- A number; an expected one is marked when it differs.
function READER:Number(what, size, expected)
    local item = self:Add(what, size)
    local value = self.tvb(item.at, size):uint()
    if expected and value ~= expected then self:Mark(item, note.value, "%#x, not %#x", value, expected) end
    return value, item
end

local function HasNul(units)
    local at = units:find("\0\0", 1, true)
    while at and at % 2 == 0 do at = units:find("\0\0", at + 1, true) end
    return at ~= nil
end

function READER:Text(what, rest)
    local units = self:Add(field.units, 2, rest)
    local size = 2 * self.tvb(units.at, 2):uint()
    if size == 0 then
        table.insert(self.items, { field = what, at = units.at, size = 2, section = self.section, value = "" })
    else
        local item = self:Add(what, size, rest)
        item.text = true
        if HasNul(self.tvb(item.at, size):raw()) then self:Mark(item, note.value, "The text holds a NUL, and is shown up to it") end
    end
end

function READER:Block(section, name, dn, ou)
    local tail = 3  -- group count and report kind
    self.section = { title = section, at = self.at }
    self:Text(name, tail + 4)
    self:Text(dn, tail + 2)
    self:Text(ou, tail)
    self.section = nil
end

function READER:Header(code)
    self.stated = self:Number(field.length, 2)
    self:Number(field.format, 2, Format)
    self:Number(field.code, 2, code)
    self.id = self:Number(field.id, 4)
end

function READER:Groups()
    local count, counted = self:Number(field.groupCount, 2)
    if count == 0 then return end
    local start, item = self:Number(field.groupStart, 1, 0)
    if start ~= 0 then error({ text = "the groups do not begin with a 0 byte", item = item }) end
    self:Need(1)
    if Kinds[self.tvb(self.at, 1):uint()] and (self.at + 1) % 65536 == self.stated then
        return self:Mark(counted, note.noGroups, "%u groups are counted, but not sent", count)
    end
    self.section = { title = "Groups", at = self.at }
    for left = count, 1, -1 do
        local others = 4 * (left - 1) + 1
        self:Text(field.group, others + 2)
        self:Text(field.groupDn, others)
        if self.at > MostBytes then break end
    end
    self.section = nil
end

function READER:Request()
    self:Header(RequestCode)
    local mask, maskItem = self:Number(field.mask, 4)
    maskItem.mask = true
    local user, computer = bit.band(mask, 0x01C0), bit.band(mask, 0x0038)
    if mask - user - computer ~= 0x0E06 or user % 0x01C0 ~= 0 or computer % 0x0038 ~= 0 then
        error({ text = "the field mask is unknown", item = maskItem })
    end
    self:Number(field.constant14, 1, 0x02)
    self:Number(field.constant15, 2, 0)
    self:Number(field.constant17, 2, 1)
    local version, versionItem = self:Number(field.addressVersion, 1)
    if version == 4 then
        self.address = self:Add(field.ipv4, 4)
    elseif version == 6 then
        self.address = self:Add(field.ipv6, 16)
    elseif version ~= 0 then
        error({ text = "the address version is unknown", item = versionItem })
    end
    self:Number(field.agentTag, 1, 0x13)
    for _, what in ipairs({ "agentMajor", "agentMinor", "agentPatch", "osCode", "osMajor", "osMinor" }) do self:Add(field[what], 1) end
    if computer ~= 0 then self:Block("Computer", field.computer, field.computerDn, field.computerOu) end
    if user ~= 0 then self:Block("User", field.user, field.userDn, field.userOu) end
    self:Groups()
    local kind, item = self:Number(field.kind, 1)
    self.kind = Kinds[kind]
    if not self.kind then self:Mark(item, note.value, "%#x is no kind of report", kind) end
end

function READER:Answer()
    self:Header(AnswerCode)
    self:Number(field.status, 4)
end

-- Where a message ends.

local function BeginsRequest(tvb, at) return tvb:captured_len() >= at + 6 and tvb(at + 2, 4):uint() == Format * 65536 + RequestCode end

-- Whether the fields that are missing may still come: not when the request ends with the length that it states.
local function MayGoOn(reader)
    local stated, wanted = reader.stated, reader.wanted
    if wanted > MostBytes then return false end
    return reader.have < HeaderBytes or wanted <= stated or reader.have ~= stated and not BeginsRequest(reader.tvb, stated)
end

-- Where a request ends that has nothing more to come.
local function EndOf(reader)
    local stated, at, have, whole = reader.stated, reader.at, reader.have, reader.whole
    local fits = stated >= HeaderBytes and stated <= have
    if whole and (stated == at % 65536 or reader.kind and BeginsRequest(reader.tvb, at)) then return at end
    if fits and (stated == have or BeginsRequest(reader.tvb, stated)) then return stated end
    return whole and at or fits and stated or have
end

-- Reads one request. Gives the reader with its `size`; nothing when more is to come before, in whole segments, since where they end
-- shows something.
local function ReadRequest(tvb, stream, patient)
    local start, reader = tvb(0, math.min(HeaderBytes, tvb:captured_len())):raw(), stream.unfinished
    if not reader or reader.start ~= start or tvb:captured_len() < reader.have then reader = NewReader(start, READER.Request) end
    reader:ReadOn(tvb)
    stream.unfinished = nil
    if reader.wanted and MayGoOn(reader) then
        if patient then
            stream.unfinished = reader
            return nil
        end
        reader:Mark(reader.items[#reader.items] or reader, note.cut, "The rest is not in the capture")
        reader.size = reader.have
        return reader
    end
    local first, says = reader.items[1], "The length is stated as %u, the fields take %u"
    if reader.wanted then
        reader:Mark(first, note.length, says .. " at least", reader.stated, reader.wanted)
    elseif reader.damage then
        reader:Mark(reader.damage.item, note.value, "%s", reader.damage.text)
    elseif reader.stated ~= reader.at % 65536 then
        reader:Mark(first, note.length, says, reader.stated, reader.at)
    end
    reader.size = EndOf(reader)
    return reader
end

-- The same for an answer. The agent takes all that comes at once for one, and so does this when the length is not that of an answer.
local function ReadAnswer(tvb, patient)
    local have = tvb:captured_len()
    local may = have == 1 and tvb(0, 1):uint() == 0 or have > 1 and tvb(0, 2):uint() == AnswerBytes
    if may and have < AnswerBytes and patient then return nil end
    local reader = NewReader(nil, READER.Answer)
    reader:ReadOn(tvb)
    reader.kind, reader.size = "answer", may and reader.whole and AnswerBytes or have
    if not may or not reader.whole then
        local text = "%u bytes, stated as %u; an answer takes " .. AnswerBytes
        reader:Mark(reader.items[1] or reader, note.length, text, reader.size, reader.stated or 0)
    end
    return reader
end

-- Showing.

local function Printable(text) return (text:gsub("%c", "?")) end

local function ShowNotes(item, tree)
    for _, one in ipairs(item.notes or {}) do tree:add_proto_expert_info(one.why, one.text) end
end

local function ShowItems(reader, tree)
    local items = {}
    for _, item in ipairs(reader.items) do
        if item.at + item.size <= reader.size then table.insert(items, item) end
        if item.section then item.section.size = math.min(item.at + item.size, reader.size) - item.section.at end
    end
    for _, item in ipairs(items) do
        local parent, range, section = tree, reader.tvb(item.at, item.size), item.section
        if section then
            section.tree = section.tree or tree:add(reader.tvb(section.at, section.size), section.title)
            parent = section.tree
        end
        local shown
        if item.text then
            shown = parent:add_packet_field(item.field, range, ENC_UTF_16 + ENC_LITTLE_ENDIAN)
        elseif item.value then
            shown = parent:add(item.field, range, item.value)
        else
            shown = parent:add(item.field, range)
        end
        if item.mask then
            shown:add(field.maskComputer, range)
            shown:add(field.maskUser, range)
        end
        ShowNotes(item, shown)
    end
    ShowNotes(reader, tree)
    if reader.at < reader.size then
        tree:add(field.rest, reader.tvb(reader.at, reader.size - reader.at))
    end
    tree:add(field.size, reader.size):set_generated()
end

-- What a request or an answer says in one line.
local function Summary(reader)
    local text = string.format("%s #%s", reader.kind or "request", reader.id or "?")
    for _, item in ipairs(reader.items) do
        local value = reader.tvb(item.at, item.size)
        if item.text and (item.field == field.user or item.field == field.computer) then
            text = text .. (item.field == field.user and " user " or " computer ") .. Printable(value:le_ustring())
        elseif item == reader.address then
            text = text .. " " .. tostring(item.size == 4 and value:ipv4() or value:ipv6())
        elseif item.field == field.status then
            text = text .. " status " .. value:uint()
        end
    end
    return text
end

-- Requests and their answers.

local function Seconds(value) return NSTime.new(math.floor(value), math.floor(value % 1 * 1e9)) end

-- In the first pass only, in the order of the capture.
local function Match(stream, pinfo, reader, answers)
    local key = (answers and "answer " or "request ") .. pinfo.number .. " " .. reader.id
    if pinfo.visited then return matched[key] end
    if not answers then
        local pair = { request = pinfo.number, sent = pinfo.rel_ts, tooSoon = stream.last and not stream.last.answer }
        stream.open[reader.id], stream.last, matched[key] = pair, pair, pair
        return pair
    end
    local pair = stream.open[reader.id]
    if not pair then return nil end
    stream.open[reader.id], matched[key] = nil, pair
    pair.answer, pair.took = pinfo.number, pinfo.rel_ts - pair.sent
    pair.late, pair.pieces = pair ~= stream.last or pair.took > AgentWaits, stream.pieces
    return pair
end

local function ShowPair(pair, tree, answers)
    if not answers then
        if pair and pair.answer then tree:add(field.answerIn, pair.answer):set_generated() end
        if pair and pair.tooSoon then tree:add_proto_expert_info(note.unanswered) end
    elseif pair then
        tree:add(field.requestIn, pair.request):set_generated()
        tree:add(field.time, Seconds(pair.took)):set_generated()
        if pair.late then tree:add_proto_expert_info(note.late) end
        if pair.pieces then tree:add_proto_expert_info(note.pieces) end
    else
        tree:add_proto_expert_info(note.unasked)
    end
end

local KnownPorts = { [1306] = true, [1308] = true }

-- The side with a known port is the server; without one the code decides.
local function IsAnswer(tvb, pinfo)
    if KnownPorts[pinfo.src_port] ~= KnownPorts[pinfo.dst_port] then return KnownPorts[pinfo.src_port] end
    return tvb:captured_len() >= 6 and tvb(4, 2):uint() == AnswerCode
end

local function IsStray(tvb, answers)
    if answers then return false end
    local have = tvb:captured_len()
    return have >= 4 and tvb(2, 2):uint() ~= Format and (have < 6 or tvb(4, 2):uint() ~= RequestCode)
end

local function ShowOne(tvb, pinfo, tree, stream)
    local answers = IsAnswer(tvb, pinfo)
    if IsStray(tvb, answers) then
        tree:add(keldwick, tvb(), "Keldwick Identity Protocol, no message"):add_proto_expert_info(note.stray)
        return tvb:captured_len()
    end
    local patient = pinfo.can_desegment > 0
    local reader
    if answers then
        reader = ReadAnswer(tvb, patient)
        stream.pieces = stream.pieces or not reader
    else
        reader = ReadRequest(tvb, stream, patient)
    end
    if not reader then return nil end
    local summary = Summary(reader)
    pinfo.cols.info:prepend(summary .. "  ")
    local branch = tree:add(keldwick, tvb(0, reader.size), "Keldwick Identity Protocol, " .. summary)
    ShowItems(reader, branch)
    if reader.id then ShowPair(Match(stream, pinfo, reader, answers), branch, answers) end
    if answers then stream.pieces = false end
    return reader.size
end

-- What to wait for: a segment, or, once no segment's end shows anything more, all that is known to be missing. A long request is not put
-- together again with each of its segments then.
local function Missing(stream, have)
    local reader = stream.unfinished
    if not reader or have < 65536 + HeaderBytes then return DESEGMENT_ONE_MORE_SEGMENT end
    return math.max(reader.wanted - have, 1)
end

function keldwick.dissector(tvb, pinfo, tree)
    pinfo.cols.protocol = "Keldwick"
    local stream, at = Stream(), 0
    while at < tvb:captured_len() do
        local taken = ShowOne(tvb(at):tvb(), pinfo, tree, stream)
        if not taken then
            pinfo.desegment_offset, pinfo.desegment_len = at, Missing(stream, tvb:captured_len() - at)
            break
        end
        at = at + taken
    end
    return tvb:captured_len()
end

DissectorTable.get("tcp.port"):add(1306, keldwick)
DissectorTable.get("tcp.port"):add(1308, Dissector.get("tls"))
DissectorTable.get("tls.port"):add(1308, keldwick)
