-- SPDX-License-Identifier: Apache-2.0
-- Makes a man page of a page of docs/: its beginning (unless `lead` is off) and the sections that `sections` names.
-- The first code block becomes the synopsis where `synopsis` is on. Pictures, and what links point to, are left out.
local function text(value) return value and pandoc.utils.stringify(value) or "" end

local function is_picture(block) return block.t == "CodeBlock" and block.text:find("[─│►◄]") ~= nil end

local function is_preface(block)
    return block.t == "Para" and #block.content > 0 and block.content[1].t == "Emph"
end

function Pandoc(doc)
    local wanted, missing = {}, {}
    for name in text(doc.meta.sections):gmatch("[^|]+") do
        wanted[name], missing[name] = true, true
    end

    local body, keep = pandoc.List(), text(doc.meta.lead) == "on"
    for _, block in ipairs(doc.blocks) do
        if block.t == "Header" and block.level <= 2 then
            local name = text(block)
            keep = block.level == 1 and keep or wanted[name] or false
            missing[name] = nil
            if keep and block.level == 2 then body:insert(pandoc.Header(1, name:upper())) end
        elseif keep and block.t ~= "RawBlock" and not is_picture(block) and not is_preface(block) then
            body:insert(block)
        end
    end
    for name in pairs(missing) do error("the page has no section '" .. name .. "'") end

    local page = pandoc.List({
        pandoc.Header(1, "NAME"), pandoc.Para({pandoc.Str(text(doc.meta.title) .. " - " .. text(doc.meta.brief))})
    })
    if text(doc.meta.synopsis) == "on" then
        local _, at = body:find_if(function(block) return block.t == "CodeBlock" end)
        page:extend({pandoc.Header(1, "SYNOPSIS"), body:remove(at)})
    end
    -- What comes first is the description, whatever its heading in docs/.
    if body[1].t == "Header" then body:remove(1) end
    page:insert(pandoc.Header(1, "DESCRIPTION"))
    page:extend(body)
    page:extend({pandoc.Header(1, "SEE ALSO"), pandoc.Para({pandoc.Str(text(doc.meta.others))})})
    doc.blocks = page
    return doc:walk({Link = function(link) return link.content end})
end
