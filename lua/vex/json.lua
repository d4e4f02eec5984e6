--- JSON texts: encode and decode.
--
-- An array is a table with the keys 1..n and no others; an empty table is an object unless `array` marked it. What
-- `decode` makes is marked. `null` stands for JSON's null, both ways. A byte of a text that is not
-- UTF-8 becomes U+FFFD: JSON has no other texts.

local text_tools = require("vex.text")

local M = {}

local array_mark, object_mark, raw_mark = {}, {}, {}

--- The value that stands for null.
M.null = setmetatable({}, {
  __tostring = function() return "null" end,
  __newindex = function() error("json.null is constant", 2) end,
})

--- Marks a table as an array, so that it is one even when it is empty.
function M.array(list) return setmetatable(list or {}, array_mark) end

--- Marks a table as an object, so that it is one even where empty tables are arrays.
function M.object(fields) return setmetatable(fields or {}, object_mark) end

--- Stands for a JSON text, which is written as it is: for what has been encoded before.
function M.raw(text) return setmetatable({ text = text }, raw_mark) end

local escapes = {
  ['"'] = '\\"', ["\\"] = "\\\\", ["\b"] = "\\b", ["\f"] = "\\f", ["\n"] = "\\n", ["\r"] = "\\r", ["\t"] = "\\t",
}

local line_ends = { ["\168"] = "\\u2028", ["\169"] = "\\u2029" }

local function escape(character)
  return escapes[character] or ("\\u%04x"):format(character:byte())
end

-- Not %c, here and below: what that is beyond ASCII depends on the locale. The control characters beyond ASCII and the
-- line ends U+2028 and U+2029 need no escape in JSON; they get one because such texts are printed.
-- Nearly all texts have none of these: one look is cheaper than to make them anew.
local function quote(text)
  if not text:find('[%z\1-\31"\\\127-\255]') then return '"' .. text .. '"' end
  text = text_tools.utf8(text, "\239\191\189"):gsub('[%z\1-\31"\\\127]', escape)
  if text:find("[\194\226]") then
    text = text:gsub("\194([\128-\159])", escape):gsub("\226\128([\168\169])", line_ends)
  end
  return '"' .. text .. '"'
end

-- A state of encoding: what the caller wants, the tables that are open, and the keys that led here.

local function place_of(state)
  local parts = {}
  for index, key in ipairs(state.path) do
    local text = type(key) == "number" and ("[%d]"):format(key) or key
    parts[index] = index > 1 and type(key) ~= "number" and "." .. text or text
  end
  return table.concat(parts)
end

local function encode_number(number, state)
  if number ~= number or number == math.huge or number == -math.huge then
    if not state.on_no_number then return nil, "a number that JSON cannot hold" end
    state.on_no_number(place_of(state))
    return "null"
  end
  if number == math.floor(number) and math.abs(number) < 2 ^ 53 then return ("%d"):format(number) end
  local text = ("%.14g"):format(number)
  return tonumber(text) == number and text or ("%.17g"):format(number)
end

local function array_length(value)
  local count, highest = 0, 0
  for key in pairs(value) do
    if type(key) ~= "number" or key < 1 or key ~= math.floor(key) then return nil end
    count, highest = count + 1, math.max(highest, key)
  end
  return count == highest and count or nil
end

local encode_value

local function wrap(parts, open, close, indent, level)
  if #parts == 0 then return open .. close end
  if not indent then return open .. table.concat(parts, ",") .. close end
  local inner, outer = "\n" .. indent:rep(level + 1), "\n" .. indent:rep(level)
  return open .. inner .. table.concat(parts, "," .. inner) .. outer .. close
end

local function is_array(value, length, state)
  if not length or length > 0 then return length ~= nil end
  local mark = getmetatable(value)
  return mark == array_mark or (state.empty_arrays and #state.path > 0 and mark ~= object_mark)
end

-- The element under a key. A failure leaves the path where it was found.
local function encode_element(value, key, state)
  state.path[#state.path + 1] = key
  local text, message = encode_value(value[key], state)
  if not text then return nil, message end
  state.path[#state.path] = nil
  return text
end

local function encode_array(value, length, state)
  local parts = {}
  for index = 1, length do
    local text, message = encode_element(value, index, state)
    if not text then return nil, message end
    parts[index] = text
  end
  return wrap(parts, "[", "]", state.indent, #state.path)
end

local function encode_object(value, state)
  local keys, parts = {}, {}
  for key in pairs(value) do
    if type(key) ~= "string" then return nil, "a key of type " .. type(key) end
    keys[#keys + 1] = key
  end
  table.sort(keys)
  for index, key in ipairs(keys) do
    local text, message = encode_element(value, key, state)
    if not text then return nil, message end
    parts[index] = quote(key) .. (state.indent and ": " or ":") .. text
  end
  return wrap(parts, "{", "}", state.indent, #state.path)
end

local function encode_table(value, state)
  if getmetatable(value) == raw_mark then return value.text end
  if state.open[value] then return nil, "a table that contains itself" end
  state.open[value] = true
  local length = array_length(value)
  local text, message
  if is_array(value, length, state) then
    text, message = encode_array(value, length, state)
  else
    text, message = encode_object(value, state)
  end
  state.open[value] = nil
  return text, message
end

function encode_value(value, state)
  local kind = type(value)
  if rawequal(value, M.null) then return "null" end
  if kind == "string" then return quote(value) end
  if kind == "number" then return encode_number(value, state) end
  if kind == "boolean" then return tostring(value) end
  if kind == "table" then return encode_table(value, state) end
  return nil, "a value of type " .. kind
end

--- The JSON text of a value; keys are sorted, so equal values give equal texts.
-- @param indent text to indent each level with; nil is one line without blanks
-- @param options empty_arrays: an empty table below the value is an array unless `object` marked it; on_no_number:
-- called with the place of each number that is none (infinite, or the result of 0/0), for which null is written
-- @return text, or nil and a message that names the place
function M.encode(value, indent, options)
  options = options or {}
  local state = {
    indent = indent, empty_arrays = options.empty_arrays, on_no_number = options.on_no_number, open = {}, path = {},
  }
  local text, message = encode_value(value, state)
  if text then return text end
  local place = place_of(state)
  return nil, "cannot encode " .. message .. (place ~= "" and " at '" .. place .. "'" or "")
end

-- Decoding: each function takes the text and a position and returns the value and the position behind it. A mistake is
-- thrown as a table and caught by `decode`.

local function fail(position, message) error({ position = position, message = message }, 0) end

local function skip_blanks(text, position) return text:find("[^ \t\r\n]", position) or #text + 1 end

local function utf8_of(code)
  if code < 0x80 then return string.char(code) end
  if code < 0x800 then return string.char(0xC0 + math.floor(code / 0x40), 0x80 + code % 0x40) end
  if code < 0x10000 then
    return string.char(0xE0 + math.floor(code / 0x1000), 0x80 + math.floor(code / 0x40) % 0x40, 0x80 + code % 0x40)
  end
  return string.char(0xF0 + math.floor(code / 0x40000), 0x80 + math.floor(code / 0x1000) % 0x40,
    0x80 + math.floor(code / 0x40) % 0x40, 0x80 + code % 0x40)
end

local unescapes = { b = "\b", f = "\f", n = "\n", r = "\r", t = "\t", ['"'] = '"', ["\\"] = "\\", ["/"] = "/" }

-- The character after "\u", a pair of surrogates taken together; position is that of the four digits.
local function decode_unicode(text, position)
  local digits = text:match("^%x%x%x%x", position)
  if not digits then fail(position, "\\u needs four hexadecimal digits") end
  local code = tonumber(digits, 16)
  if code >= 0xD800 and code < 0xDC00 then
    local low = text:match("^\\u([dD][c-fC-F]%x%x)", position + 4)
    if not low then fail(position, "half of a surrogate pair") end
    return utf8_of(0x10000 + (code - 0xD800) * 0x400 + tonumber(low, 16) - 0xDC00), position + 10
  end
  if code >= 0xDC00 and code < 0xE000 then fail(position, "half of a surrogate pair") end
  return utf8_of(code), position + 4
end

local function decode_text(text, position)
  local parts = {}
  while true do
    local stop = text:find('[%z\1-\31"\\]', position)
    if not stop then fail(position, "a text without its end") end
    parts[#parts + 1] = text:sub(position, stop - 1)
    local character = text:sub(stop, stop)
    if character == '"' then return table.concat(parts), stop + 1 end
    if character ~= "\\" then
      fail(stop, "a control character in a text")
    else
      local letter = text:sub(stop + 1, stop + 1)
      if letter == "u" then
        parts[#parts + 1], position = decode_unicode(text, stop + 2)
      elseif unescapes[letter] then
        parts[#parts + 1], position = unescapes[letter], stop + 2
      else
        fail(stop, "an unknown escape")
      end
    end
  end
end

local function decode_number(text, position)
  local stop = select(2, text:find("^-?%d+", position))
  if not stop then fail(position, "a value is expected") end
  if text:find("^-?0%d", position) then fail(position, "a number with a leading zero") end
  stop = select(2, text:find("^%.%d+", stop + 1)) or stop
  stop = select(2, text:find("^[eE][+-]?%d+", stop + 1)) or stop
  return tonumber(text:sub(position, stop)), stop + 1
end

local words = { { "true", true }, { "false", false }, { "null", M.null } }
local max_depth = 200 -- far below what the C stack holds

local decode_value

local function decode_list(text, position, depth)
  local list = M.array()
  position = skip_blanks(text, position)
  if text:sub(position, position) == "]" then return list, position + 1 end
  while true do
    list[#list + 1], position = decode_value(text, position, depth)
    position = skip_blanks(text, position)
    local character = text:sub(position, position)
    if character == "]" then return list, position + 1 end
    if character ~= "," then fail(position, "',' or ']' is expected") end
    position = position + 1
  end
end

local function decode_object(text, position, depth)
  local object = M.object()
  position = skip_blanks(text, position)
  if text:sub(position, position) == "}" then return object, position + 1 end
  while true do
    position = skip_blanks(text, position)
    if text:sub(position, position) ~= '"' then fail(position, "a key is expected") end
    local key
    key, position = decode_text(text, position + 1)
    position = skip_blanks(text, position)
    if text:sub(position, position) ~= ":" then fail(position, "':' is expected") end
    object[key], position = decode_value(text, position + 1, depth)
    position = skip_blanks(text, position)
    local character = text:sub(position, position)
    if character == "}" then return object, position + 1 end
    if character ~= "," then fail(position, "',' or '}' is expected") end
    position = position + 1
  end
end

function decode_value(text, position, depth)
  if depth > max_depth then fail(position, "nested too deeply") end
  position = skip_blanks(text, position)
  local character = text:sub(position, position)
  if character == '"' then return decode_text(text, position + 1) end
  if character == "[" then return decode_list(text, position + 1, depth + 1) end
  if character == "{" then return decode_object(text, position + 1, depth + 1) end
  for _, word in ipairs(words) do
    if text:sub(position, position + #word[1] - 1) == word[1] then return word[2], position + #word[1] end
  end
  return decode_number(text, position)
end

--- The value of a JSON text.
-- @return the value, or nil and a message that names the place
function M.decode(text)
  local ok, value, position = pcall(decode_value, text, 1, 0)
  if ok then
    position = skip_blanks(text, position)
    if position > #text then return value end
    value = { position = position, message = "text behind the value" }
  end
  if type(value) ~= "table" then error(value, 0) end
  return nil, ("not JSON at byte %d: %s"):format(value.position, value.message)
end

return M
