local glob = require("vex.glob")
local temp = require("support.temp")
local lu = require("luaunit")

local M = { TestGlob = {} }

function M.TestGlob:setUp()
  self.folder = temp.folder()
  for _, name in ipairs({
    "b_test.lua", "a_test.lua", "a.lua", ".hidden_test.lua", "sub/c_test.lua", "sub/deep/d_test.lua",
    "sub/é.lua", "odd/a+b.lua", ".git/e_test.lua",
  }) do
    temp.write(self.folder, name, "")
  end
end

function M.TestGlob:tearDown() temp.remove(self.folder) end

-- What a pattern finds, relative to the folder, in one text.
function M.TestGlob:found(pattern)
  local names = {}
  for index, path in ipairs(glob.files(pattern, self.folder)) do names[index] = path:sub(#self.folder + 2) end
  return table.concat(names, " ")
end

function M.TestGlob:test_a_plain_name_is_itself()
  lu.assertEquals(self:found("a.lua"), "a.lua")
  lu.assertEquals(self:found("sub/c_test.lua"), "sub/c_test.lua")
  lu.assertEquals(self:found("none.lua"), "")
end

function M.TestGlob:test_a_star_stays_in_its_folder_and_the_result_is_sorted()
  lu.assertEquals(self:found("*_test.lua"), "a_test.lua b_test.lua")
  lu.assertEquals(self:found("s*/*_test.lua"), "sub/c_test.lua")
end

function M.TestGlob:test_a_question_mark_is_one_character_even_beyond_ascii()
  lu.assertEquals(self:found("?.lua"), "a.lua")
  lu.assertEquals(self:found("sub/?.lua"), "sub/é.lua")
end

function M.TestGlob:test_two_stars_are_any_depth_none_included()
  lu.assertEquals(self:found("**/*_test.lua"), "a_test.lua b_test.lua sub/c_test.lua sub/deep/d_test.lua")
  lu.assertEquals(self:found("sub/**/d_test.lua"), "sub/deep/d_test.lua")
  lu.assertEquals(self:found("sub/**"), "sub/c_test.lua sub/deep/d_test.lua sub/é.lua")
end

function M.TestGlob:test_hidden_names_are_found_only_when_the_pattern_begins_with_a_dot()
  lu.assertEquals(self:found(".*"), ".hidden_test.lua")
  lu.assertEquals(self:found(".git/*"), ".git/e_test.lua")
end

function M.TestGlob:test_letters_that_mean_something_in_lua_mean_themselves()
  lu.assertEquals(self:found("odd/a+*.lua"), "odd/a+b.lua")
  lu.assertEquals(self:found("odd/a.b.*"), "")
end

function M.TestGlob:test_a_folder_is_no_match() lu.assertEquals(self:found("su?"), "") end

function M.TestGlob:test_an_absolute_pattern_needs_no_base()
  lu.assertEquals(glob.files(self.folder .. "/a.l*"), { self.folder .. "/a.lua" })
end

function M.TestGlob:test_a_circle_of_links_does_no_harm()
  if not os.execute(("ln -s .. '%s/sub/up'"):format(self.folder)) then lu.skip("no links here") end
  lu.assertEquals(self:found("**/d_test.lua"), "sub/deep/d_test.lua")
end

return M
