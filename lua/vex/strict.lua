--- Tables that refuse a misspelt name.

--- Seals a table: reading or writing a field that it does not have is an error. Present fields can be changed.
-- @param name what to call the table in the message
-- @return the table
return function(target, name)
  return setmetatable(target, {
    __index = function(_, key) error(("%s has no field '%s'"):format(name, tostring(key)), 2) end,
    __newindex = function(_, key) error(("%s has no field '%s' to set"):format(name, tostring(key)), 2) end,
  })
end
