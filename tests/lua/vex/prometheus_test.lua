local prometheus = require("vex.prometheus")
local lu = require("luaunit")

local M = { TestNames = {}, TestFamilies = {} }

function M.TestNames:test_what_a_name_cannot_have_becomes_an_underscore()
  local rows = {
    { "received", "received" }, { "a.b-c", "a_b_c" }, { "caf\195\169", "caf_" }, { "5xx", "_5xx" }, { "a:b", "a_b" },
    { "", "" }, { "\0\n", "_" },
  }
  for _, row in ipairs(rows) do lu.assertEquals(prometheus.clean(row[1]), row[2]) end
end

function M.TestNames:test_units_go_behind_the_name_once_and_total_behind_them()
  local rows = {
    { "free", nil, false, "free" }, { "free", "bytes", false, "free_bytes" },
    { "free_bytes", "bytes", false, "free_bytes" },
    { "bytes", "bytes", false, "bytes" }, { "kilobytes", "bytes", false, "kilobytes_bytes" },
    { "rate", "bytes/s", false, "rate_bytes_per_second" }, { "full", "%", false, "full_percent" },
    { "wait", "ms", false, "wait_milliseconds" }, { "age", "Days", false, "age_days" }, { "x", "/", false, "x_per" },
    { "sent", "bytes", true, "sent_bytes_total" }, { "sent_total", "bytes", true, "sent_bytes_total" },
    { "sent_total", nil, true, "sent_total" }, { "x", "!", false, "x" },
  }
  for _, row in ipairs(rows) do lu.assertEquals(prometheus.family_name(row[1], row[2], row[3]), row[4]) end
end

function M.TestFamilies:setUp() self.families = prometheus.new() end

function M.TestFamilies:add(...) return self.families:add(...) end

function M.TestFamilies:test_families_are_sorted_and_keep_their_samples_together()
  self:add("b_total", { help = "Second.", type = "counter" }, 2, { { "x", "1" } })
  self:add("a", { help = "First." }, 1)
  self:add("b_total", { help = "Not heard." }, 3, { { "x", "2" } })
  lu.assertEquals(self.families:text(), [[
# HELP a First.
# TYPE a gauge
a 1
# HELP b_total Second.
# TYPE b_total counter
b_total{x="1"} 2
b_total{x="2"} 3
]])
end

function M.TestFamilies:test_many_families_are_sorted_too()
  local expected = {}
  for number = 99, 10, -1 do self:add("f" .. number, { help = "" }, 1) end
  for number = 10, 99 do expected[#expected + 1] = "f" .. number end
  local names = {}
  for name in self.families:text():gmatch("\n(f%d+) 1") do names[#names + 1] = name end
  lu.assertEquals(names, expected)
end

function M.TestFamilies:test_numbers_are_exact()
  local rows = {
    { 0.1, "0.1" }, { 1 / 3, "0.33333333333333331" }, { 2 ^ 53, "9007199254740992" }, { -5, "-5" }, { true, "1" },
    { false, "0" }, { 1e300, "1e+300" }, { 2 ^ 53 - 1, "9007199254740991" },
  }
  for _, row in ipairs(rows) do
    local families = prometheus.new()
    families:add("a", { help = "" }, row[1])
    lu.assertEquals(families:text():match("\na (%S+)\n$"), row[2])
  end
end

function M.TestFamilies:test_what_is_no_number_is_no_sample()
  for _, value in ipairs({ 0 / 0, math.huge, -math.huge }) do
    lu.assertFalse(self:add("a", { help = "" }, value))
  end
  lu.assertEquals(self.families:text(), "")
  lu.assertEquals(self.families.count, 0)
end

function M.TestFamilies:test_labels_are_escaped_and_of_utf8()
  self:add("a", { help = "back\\slash\nand \255" }, 1, { { "x", 'a"b\\c\nd\255' } })
  lu.assertEquals(self.families:text(),
    '# HELP a back\\\\slash\\nand \239\191\189\n# TYPE a gauge\na{x="a\\"b\\\\c\\nd\239\191\189"} 1\n')
end

function M.TestFamilies:test_a_long_label_is_cut_where_a_character_begins()
  self:add("a", { help = "" }, 1, { { "x", ("a"):rep(199) .. "\195\169" } })
  lu.assertStrContains(self.families:text(), 'a{x="' .. ("a"):rep(199) .. '"} 1')
end

function M.TestFamilies:test_a_sample_counts_once()
  lu.assertTrue(self:add("a", { help = "" }, 1, { { "x", "1" } }))
  lu.assertFalse(self:add("a", { help = "" }, 2, { { "x", "1" } }))
  lu.assertTrue(self:add("a", { help = "" }, 3, { { "x", "2" } }))
  lu.assertEquals(self.families.count, 2)
end

function M.TestFamilies:test_labels_that_no_sample_has_are_not_kept()
  local seen = setmetatable({}, { __mode = "k" })
  for number = 1, 100 do
    local labels = { { "name", "the same" } }
    seen[labels] = true
    lu.assertEquals(self:add("a", { help = "" }, number, labels), number == 1)
    lu.assertEquals(self:add("b", { help = "" }, number, labels), number == 1)
  end
  collectgarbage()
  local kept = 0
  for _ in pairs(seen) do kept = kept + 1 end
  lu.assertEquals(kept, 1)
  lu.assertStrContains(self.families:text(), 'b{name="the same"} 1\n')
end

function M.TestFamilies:test_a_text_is_split_into_its_families_and_put_together_again()
  self:add("a", { help = "# HELP no" }, 1)
  self:add("b", { help = "B" }, 2, { { "x", "# HELP" } })
  self:add("b", { help = "B" }, 3, { { "x", "y" } })
  local text, again, found = self.families:text(), prometheus.new(), {}
  for name, family in prometheus.split(text) do
    found[#found + 1] = name .. " " .. prometheus.samples(family)
    lu.assertTrue(again:add_text(name, family))
  end
  lu.assertEquals(found, { "a 1", "b 2" })
  lu.assertEquals(again:text(), text)
  lu.assertFalse(again:add_text("a", ""))
  for _ in prometheus.split("") do lu.fail("there is nothing in nothing") end
end

function M.TestFamilies:test_what_has_no_name_is_skipped_and_hides_no_family()
  local family, found = "# HELP a A\n# TYPE a gauge\na 1\n", {}
  for name, text in prometheus.split("garbage\n# HELP \n" .. family .. "# HELP ") do
    found[#found + 1] = name .. " " .. prometheus.samples(text)
    lu.assertEquals(text, family)
  end
  lu.assertEquals(found, { "a 1" })
end

return M
