local strict = require("vex.strict")
local lu = require("luaunit")

local M = { TestStrict = {} }

function M.TestStrict:test_present_fields_are_read_and_changed()
  local sealed = strict({ a = 1 }, "options")
  sealed.a = 2
  lu.assertEquals(sealed.a, 2)
end

function M.TestStrict:test_a_misspelt_field_is_an_error_at_the_place_of_use()
  local sealed = strict({ a = 1 }, "options")
  lu.assertErrorMsgContains("options has no field 'b'", function() return sealed.b end)
  lu.assertErrorMsgContains("options has no field 'b' to set", function() sealed.b = 1 end)
  lu.assertErrorMsgContains("strict_test.lua", function() return sealed.b end)
end

return M
