local text = require("vex.text")
local lu = require("luaunit")

local M = { TestText = {} }

function M.TestText:test_trim_takes_blanks_from_both_ends_only()
  lu.assertEquals(text.trim("  a b\t\n"), "a b")
  lu.assertEquals(text.trim("   "), "")
end

function M.TestText:test_split_leaves_out_what_is_empty()
  lu.assertEquals(text.split(" a, b,,c ,"), { "a", "b", "c" })
  lu.assertEquals(text.split(""), {})
  lu.assertEquals(text.split("a.b", "."), { "a", "b" })
end

function M.TestText:test_pad_counts_characters_not_bytes()
  lu.assertEquals(text.pad("é", 3), "é  ")
  lu.assertEquals(text.pad("é", 3, true), "  é")
  lu.assertEquals(text.pad("long", 2), "long")
end

function M.TestText:test_utf8_keeps_characters_and_replaces_other_bytes()
  local goods = { "", "a\0b", "é", "€", "\239\191\189", "\237\159\191", "\240\144\128\128", "\244\143\191\191" }
  for _, good in ipairs(goods) do
    lu.assertEquals(text.utf8(good .. "x" .. good, "?"), good .. "x" .. good)
  end
  lu.assertEquals(text.utf8("caf\233 \195", "?"), "caf? ?")
  lu.assertEquals(text.utf8("\192\128", "?"), "??") -- overlong
  lu.assertEquals(text.utf8("\224\159\191", "."), "...") -- overlong
  lu.assertEquals(text.utf8("\237\160\128", "."), "...") -- half of a pair
  lu.assertEquals(text.utf8("\244\144\128\128", "."), "....") -- above the last
end

function M.TestText:test_what_could_do_things_to_a_terminal_or_leave_its_line_is_escaped()
  lu.assertEquals(text.printable("plain é € \240\159\152\128"), "plain é € \240\159\152\128")
  lu.assertEquals(text.printable("\27[31m\7"), "\\x1B[31m\\x07")
  lu.assertEquals(text.printable("a\nb\r\tc\0\127"), "a\\x0Ab\\x0D\\x09c\\x00\\x7F")
  lu.assertEquals(text.printable("\194\128 \194\155 \194\159 \194\160"), "\\xC2\\x80 \\xC2\\x9B \\xC2\\x9F \194\160")
  lu.assertEquals(text.printable("\226\128\168\226\128\169\226\128\170"), "\\xE2\\x80\\xA8\\xE2\\x80\\xA9\226\128\170")
  lu.assertEquals(text.printable("caf\233 \155"), "caf\\xE9 \\x9B") -- bytes that are not UTF-8
end

function M.TestText:test_bytes()
  local table_of = {
    [0] = "0 B", [1023] = "1023 B", [1024] = "1.0 KiB", [1536] = "1.5 KiB", [10 * 1024] = "10 KiB",
    [1024 * 1024 - 1] = "1.0 MiB", [5 * 2 ^ 30] = "5.0 GiB", [2 ^ 60] = "1.0 EiB", [2 ^ 75] = "32768 EiB",
  }
  for count, expected in pairs(table_of) do lu.assertEquals(text.bytes(count), expected) end
end

function M.TestText:test_duration_has_two_neighbouring_units_at_most()
  local table_of = {
    [0] = "0 s", [0.9] = "0 s", [59] = "59 s", [60] = "1 min", [61] = "1 min 1 s", [3600] = "1 h", [3661] = "1 h 1 min",
    [86400] = "1 d", [86400 + 59] = "1 d", [90061] = "1 d 1 h",
  }
  for seconds, expected in pairs(table_of) do lu.assertEquals(text.duration(seconds), expected) end
end

return M
