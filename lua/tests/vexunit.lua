--- Runs Lua test scripts under LuaUnit.
--
-- The launcher requires this module for `vx_agent --unittest SCRIPTS -- ARGUMENTS` and calls its value with SCRIPTS.
-- The arguments after "--" are the positive keys of the global `arg`.
--
-- The value is a function because that is what the launcher calls. The pieces are modules below "tests.vexunit".

local options = require("tests.vexunit.options")
local runner = require("tests.vexunit.runner")

--- Runs the scripts that `wanted` names and reports on them.
-- @param wanted a script or a pattern ("*", "?", "**"), relative to the current directory or else to "app.path.bin"
-- @param arguments array of options; nil takes the positive keys of the global `arg`
-- @param console table with `write(text)`, `complain(text)`, `terminal` (are colours wanted?) and `clock()` in
-- seconds; nil is standard output, standard error and the system's clock
-- @return 0 all passed; 1 a test failed; 2 the run itself was wrong: nothing matched, a bad argument, a script that
-- does not load. Never a count, which a process status would wrap to 0.
return function(wanted, arguments, console)
  console = console or runner.standard_console()
  local settings, message = options.parse(arguments or arg)
  if not settings then
    console.complain("vexunit: " .. message .. "\n\n" .. options.usage)
    return 2
  end
  if settings.help then
    console.write(options.usage)
    return 0
  end
  return runner.run(wanted, settings, console)
end
