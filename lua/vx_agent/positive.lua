--- Settings that are whole numbers from 1 on.

local settings = require("vex.settings")

--- Makes a reader of such settings.
-- @param log from vex.log: a value that means nothing is told there, once a key
-- @return a function of the key of such a setting of the host's, which gives it, or its default where it means nothing
return function(log)
  local told = {}
  return function(key)
    local default = settings.default(key)
    local ok, value = pcall(settings.int, key, default) -- an error when Lua's numbers cannot hold it
    if ok and value >= 1 then return value end
    if not told[key] then
      told[key] = true
      log.warning("The setting '%s' is %s and must be at least 1; %d is taken", key,
        ok and ("%d"):format(value) or "too large", default)
    end
    return default
  end
end
