local options = require("tests.vexunit.options")
local lu = require("luaunit")

local M = { TestOptions = {} }

function M.TestOptions:test_without_arguments_everything_has_its_default()
  lu.assertEquals(options.parse({}), { output = "text", patterns = {}, names = {}, repetitions = 1, slowest = 3 })
end

function M.TestOptions:test_every_option_in_every_form()
  local settings = options.parse({ "-o", "JUnit", "--name=x.xml", "-p", "^a", "--exclude", "b$", "-r", "3", "--shuffle",
    "--seed", "42", "-e", "-f", "-v", "--slowest=0", "--coverage", "c.info", "TestA", "TestB.test_c" })
  lu.assertEquals(settings, {
    output = "junit", file = "x.xml", patterns = { "^a", "!b$" }, names = { "TestA", "TestB.test_c" }, repetitions = 3,
    shuffle = true, seed = 42, stop_at_error = true, stop_at_failure = true, verbose = true, slowest = 0,
    coverage = "c.info",
  })
end

function M.TestOptions:test_the_last_of_a_repeated_value_wins()
  lu.assertEquals(options.parse({ "--seed", "1", "--seed=2" }).seed, 2)
end

function M.TestOptions:test_wrong_arguments_are_told_each_in_its_own_words()
  local mistakes = {
    ["--nonsense"] = "unknown option '--nonsense'", ["-z"] = "unknown option '-z'", ["-o"] = "-o needs a value",
    ["--output=xml"] = "must be text, tap, junit or nil", ["--repeat=0"] = "whole number from 1",
    ["--repeat=1.5"] = "whole number", ["--seed=-1"] = "whole number from 0", ["--pattern=["] = "is not a Lua pattern",
    ["--pattern="] = "must not be empty", ["--shuffle=yes"] = "takes no value",
    ["--output=junit"] = "needs a file",
    ["--name=x"] = "means nothing else", ["--coverage="] = "must not be empty",
    ["--repeat=99999999999"] = "whole number",
  }
  for argument, words in pairs(mistakes) do
    local settings, message = options.parse({ argument })
    lu.assertNil(settings, argument)
    lu.assertStrContains(message, words)
  end
  lu.assertStrContains(select(2, options.parse({ "-v", "-q" })), "exclude each other")
end

function M.TestOptions:test_the_usage_names_every_option()
  for _, option in ipairs({ "--output", "--name", "--pattern", "--exclude", "--repeat", "--shuffle", "--seed",
    "--error", "--failure", "--verbose", "--quiet", "--slowest", "--coverage", "--help" }) do
    lu.assertStrContains(options.usage, option)
  end
end

return M
