--- The arguments after "--" in the foreground.

local M = {}

M.usage = [=[
usage: vx_agent [launcher's options] [-- [--json]]

  --json    print the report as JSON
  --help    print this
]=]

--- @param arguments array of texts
-- @return table with json and help, or nil and what is wrong
function M.parse(arguments)
  local chosen = {}
  for _, argument in ipairs(arguments) do
    if argument == "--json" then
      chosen.json = true
    elseif argument == "--help" then
      chosen.help = true
    else
      return nil, ("unknown argument '%s'"):format(argument)
    end
  end
  return chosen
end

return M
