local options = require("vx_agent.options")
local lu = require("luaunit")

local M = { TestOptions = {} }

function M.TestOptions:test_nothing_is_chosen_without_arguments() lu.assertEquals(options.parse({}), {}) end

function M.TestOptions:test_json_and_help()
  lu.assertEquals(options.parse({ "--json" }), { json = true })
  lu.assertEquals(options.parse({ "--help", "--json" }), { json = true, help = true })
end

function M.TestOptions:test_only_what_follows_the_separator_counts()
  lu.assertEquals(options.parse({ [-1] = "--nonsense", [0] = "vx_agent" }), {})
end

function M.TestOptions:test_an_unknown_argument_is_named()
  local chosen, message = options.parse({ "--jsn" })
  lu.assertNil(chosen)
  lu.assertEquals(message, "unknown argument '--jsn'")
end

return M
