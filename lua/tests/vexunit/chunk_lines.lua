--- The lines that hold code, read from a compiled chunk of Lua 5.2 as string.dump gives it.
--
-- debug.getinfo tells the lines of one function; a function that was never made has no such object, and its lines are
-- the ones that matter. The compiled form has them all.

-- Reads little or big endian unsigned numbers as the header says.
local function reader(chunk)
  local self = { position = 1 }
  local little, int_size, size_t_size, instruction_size, number_size

  function self.skip(count) self.position = self.position + count end

  function self.byte()
    local value = chunk:byte(self.position)
    self.position = self.position + 1
    return value
  end

  local function number(size)
    local value = 0
    for index = 1, size do
      local at = little and size - index or index - 1
      value = value * 256 + chunk:byte(self.position + at)
    end
    self.position = self.position + size
    return value
  end

  function self.int() return number(int_size) end
  function self.text() self.skip(number(size_t_size)) end
  function self.instructions() self.skip(self.int() * instruction_size) end
  function self.number() self.skip(number_size) end

  -- Signature (4), version, format, endianness, sizes of int, size_t, instruction and number, integral flag, tail (6).
  function self.header()
    if chunk:sub(1, 4) ~= "\27Lua" or chunk:byte(5) ~= 0x52 then return false end
    little = chunk:byte(7) == 1
    int_size, size_t_size, instruction_size, number_size = chunk:byte(8, 11)
    self.position = 19
    return true
  end

  return self
end

local kinds = { [0] = "skip_nothing", [1] = "byte", [3] = "number", [4] = "text" }

local function read_function(from, lines)
  from.int() -- first line of the definition
  from.int() -- last line
  from.skip(3) -- parameters, is it vararg, registers
  from.instructions()
  for _ = 1, from.int() do -- constants
    local kind = kinds[from.byte()]
    if from[kind] then from[kind]() end
  end
  for _ = 1, from.int() do read_function(from, lines) end
  for _ = 1, from.int() do from.skip(2) end -- upvalues
  from.text() -- source
  for _ = 1, from.int() do lines[from.int()] = true end
  for _ = 1, from.int() do -- local variables
    from.text()
    from.int()
    from.int()
  end
  for _ = 1, from.int() do from.text() end -- names of upvalues
end

--- @param chunk text from string.dump, with debug information
-- @return table with the line numbers as keys; empty for a chunk of another version
return function(chunk)
  local lines = {}
  local from = reader(chunk)
  if from.header() then read_function(from, lines) end
  lines[0] = nil
  return lines
end
