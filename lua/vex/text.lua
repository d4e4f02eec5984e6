--- Texts: small helpers.

local M = {}

--- The text without blanks at its ends.
function M.trim(text) return text:match("^%s*(.-)%s*$") end

--- The pieces between separators, trimmed, empty ones left out: "a, b,,c" gives a, b, c.
-- @param separator one character; nil is ","
function M.split(text, separator)
  local pieces = {}
  for piece in text:gmatch("[^%" .. (separator or ",") .. "]+") do
    piece = M.trim(piece)
    if piece ~= "" then pieces[#pieces + 1] = piece end
  end
  return pieces
end

--- How many characters of UTF-8 a text has.
function M.length(text)
  local _, count = text:gsub("[^\128-\191]", "")
  return count
end

--- The text filled up with blanks to a width in characters; at the left when `right_aligned`.
function M.pad(text, width, right_aligned)
  local blanks = (" "):rep(width - M.length(text))
  return right_aligned and blanks .. text or text .. blanks
end

-- The forms of a character of UTF-8: no overlong ones, no halves of surrogate pairs, nothing above U+10FFFF.
local characters = {
  "^[%z\1-\127]+", "^[\194-\223][\128-\191]", "^\224[\160-\191][\128-\191]",
  "^[\225-\236\238\239][\128-\191][\128-\191]", "^\237[\128-\159][\128-\191]", "^\240[\144-\191][\128-\191][\128-\191]",
  "^[\241-\243][\128-\191][\128-\191][\128-\191]", "^\244[\128-\143][\128-\191][\128-\191]",
}

local function end_of_character(text, index)
  for _, form in ipairs(characters) do
    local _, stop = text:find(form, index)
    if stop then return stop end
  end
end

--- The text with a replacement in place of each byte that is not part of UTF-8.
function M.utf8(text, replacement)
  if not text:find("[\128-\255]") then return text end
  local parts, index = {}, 1
  while index <= #text do
    local stop = end_of_character(text, index)
    parts[#parts + 1] = stop and text:sub(index, stop) or replacement
    index = (stop or index) + 1
  end
  return table.concat(parts)
end

local function escape_bytes(bytes)
  return (bytes:gsub(".", function(byte) return ("\\x%02X"):format(byte:byte()) end))
end

--- The text as it can be shown on a terminal, in one line: a control character, a line break among them, becomes \xNN,
-- and so does a byte that is not part of UTF-8.
function M.printable(text)
  if not text:find("[%z\1-\31\127-\255]") then return text end
  local parts, index = {}, 1
  while index <= #text do
    local stop = end_of_character(text, index)
    local piece = text:sub(index, stop or index)
    if not stop or piece:find("^\194[\128-\159]$") or piece:find("^\226\128[\168\169]$") then -- C1, U+2028, U+2029
      parts[#parts + 1] = escape_bytes(piece)
    else
      parts[#parts + 1] = piece:gsub("[%z\1-\31\127]", escape_bytes)
    end
    index = (stop or index) + 1
  end
  return table.concat(parts)
end

local units = { "KiB", "MiB", "GiB", "TiB", "PiB", "EiB" }

--- A number of bytes for people: 512 B, 1.5 KiB, 20 GiB.
function M.bytes(count)
  if count < 1024 then return ("%d B"):format(count) end
  local index = 0
  repeat
    count, index = count / 1024, index + 1
  until count < 1023.5 or index == #units
  return (count < 9.95 and "%.1f %s" or "%.0f %s"):format(count, units[index])
end

--- A number of seconds for people, in its two largest units: 45 s, 3 min 20 s, 2 d 4 h.
function M.duration(seconds)
  seconds = math.floor(seconds)
  local parts = {}
  for _, unit in ipairs({ { 86400, "d" }, { 3600, "h" }, { 60, "min" }, { 1, "s" } }) do
    local count = math.floor(seconds / unit[1])
    seconds = seconds - count * unit[1]
    if count > 0 then
      parts[#parts + 1] = ("%d %s"):format(count, unit[2])
    elseif #parts > 0 then
      break
    end
    if #parts == 2 then break end
  end
  return #parts > 0 and table.concat(parts, " ") or "0 s"
end

return M
