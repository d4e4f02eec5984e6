--- The options of the test runner: a table of them, and a strict reader.

local M = {}

M.usage = [[
usage: vx_agent --unittest SCRIPTS -- [option...] [name...]

SCRIPTS is a script or a pattern: "*" and "?" stand for any letters of a name, "**" for folders at any depth.
A name is a test function, a class, or Class.method; without names all tests run.

  -o, --output FORMAT    text (default), tap, junit or nil
  -n, --name FILE        the file that junit output goes to
  -p, --pattern PATTERN  run the tests whose names match the Lua pattern; may be given several times
  -x, --exclude PATTERN  leave out the tests whose names match; may be given several times
  -r, --repeat N         run each test N times
  -s, --shuffle          run scripts and tests in random order
      --seed N           seed of the random numbers; the summary names the one that was used
  -e, --error            stop at the first error
  -f, --failure          stop at the first failure or error
  -v, --verbose          a line for each test
  -q, --quiet            only failures and the summary
      --slowest N        how many of the slowest tests the summary names (default 3)
      --coverage FILE    write the Lua lines that ran to FILE, in LCOV format
  -h, --help             print this
]]

local function text(value)
  if value == "" then return nil, "must not be empty" end
  return value
end

local function count_from(least)
  return function(value)
    local number = value:match("^%d+$") and tonumber(value)
    if not number or number < least or number > 2 ^ 31 - 1 then
      return nil, ("must be a whole number from %d to %d"):format(least, 2 ^ 31 - 1)
    end
    return number
  end
end

local formats = { text = true, tap = true, junit = true, ["nil"] = true }

local function format(value)
  local lower = value:lower()
  if not formats[lower] then return nil, "must be text, tap, junit or nil" end
  return lower
end

local function pattern(value)
  if value == "" then return nil, "must not be empty" end
  local ok, message = pcall(string.find, "", value)
  if not ok then return nil, "is not a Lua pattern: " .. tostring(message) end
  return value
end

-- Each option: the setting that it fills, how its value is read (nil: a switch), and what a repetition does.
local known = {
  ["--output"] = { setting = "output", read = format },
  ["--name"] = { setting = "file", read = text },
  ["--pattern"] = { list = "patterns", read = pattern },
  ["--exclude"] = { list = "patterns", read = pattern, prefix = "!" },
  ["--repeat"] = { setting = "repetitions", read = count_from(1) },
  ["--shuffle"] = { setting = "shuffle" },
  ["--seed"] = { setting = "seed", read = count_from(0) },
  ["--error"] = { setting = "stop_at_error" },
  ["--failure"] = { setting = "stop_at_failure" },
  ["--verbose"] = { setting = "verbose" },
  ["--quiet"] = { setting = "quiet" },
  ["--slowest"] = { setting = "slowest", read = count_from(0) },
  ["--coverage"] = { setting = "coverage", read = text },
  ["--help"] = { setting = "help" },
}

local short = {
  ["-o"] = "--output", ["-n"] = "--name", ["-p"] = "--pattern", ["-x"] = "--exclude", ["-r"] = "--repeat",
  ["-s"] = "--shuffle", ["-e"] = "--error", ["-f"] = "--failure", ["-v"] = "--verbose", ["-q"] = "--quiet",
  ["-h"] = "--help",
}

local function store(settings, option, value)
  if option.list then
    table.insert(settings[option.list], (option.prefix or "") .. value)
  else
    settings[option.setting] = value
  end
end

local function check_together(settings)
  if settings.help then return settings end
  if settings.output == "junit" and not settings.file then
    return nil, "--output junit needs a file: --name FILE"
  end
  if settings.file and settings.output ~= "junit" then
    return nil, "--name is the file of --output junit and means nothing else"
  end
  if settings.verbose and settings.quiet then
    return nil, "--verbose and --quiet exclude each other"
  end
  return settings
end

--- Reads the arguments.
-- @param arguments array of texts
-- @return a table of settings, or nil and what is wrong
function M.parse(arguments)
  local settings = { output = "text", patterns = {}, names = {}, repetitions = 1, slowest = 3 }
  local index = 1
  while arguments[index] do
    local argument = arguments[index]
    local name, value = argument:match("^(%-%-[^=]+)=(.*)$")
    name = name or short[argument] or argument
    local option = known[name]
    if option and option.read then
      if not value then
        index = index + 1
        value = arguments[index]
      end
      if not value then return nil, ("%s needs a value"):format(argument) end
      local read, message = option.read(value)
      if read == nil then return nil, ("%s '%s': the value %s"):format(name, value, message) end
      store(settings, option, read)
    elseif option then
      if value then return nil, ("%s takes no value"):format(name) end
      store(settings, option, true)
    elseif argument:sub(1, 1) == "-" then
      return nil, ("unknown option '%s'"):format(argument)
    else
      table.insert(settings.names, argument)
    end
    index = index + 1
  end
  return check_together(settings)
end

return M
