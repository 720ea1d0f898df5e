-- SPDX-License-Identifier: MIT
--
-- A dissector for the tests: lines, of which one may go on in the next message.

local lines = Proto("testlines", "Lines for a test")
lines.fields.line = ProtoField.string("testlines.line", "Line")

function lines.dissector(tvb, pinfo, tree)
    local at = 0
    while at < tvb:len() do
        local size = tvb:raw(at):find("\n", 1, true)
        if not size then
            pinfo.desegment_offset, pinfo.desegment_len = at, DESEGMENT_ONE_MORE_SEGMENT
            return tvb:len()
        end
        tree:add(lines.fields.line, tvb(at, size))
        at = at + size
    end
    return at
end
