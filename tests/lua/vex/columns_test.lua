local columns = require("vex.columns")
local lu = require("luaunit")

local M = { TestColumns = {} }

function M.TestColumns:test_columns_are_as_wide_as_their_widest_cell()
  lu.assertEquals(columns.format({ { "a", "long" }, { "longer", "b" } }), "a       long\nlonger  b\n")
end

function M.TestColumns:test_numbers_are_aligned_to_the_right_on_request()
  lu.assertEquals(columns.format({ { "a", "1" }, { "b", "100" } }, { right = { [2] = true }, indent = "> " }),
    "> a    1\n> b  100\n")
end

function M.TestColumns:test_no_line_ends_in_blanks_and_letters_beyond_ascii_count_once()
  lu.assertEquals(columns.format({ { "é", "" }, { "bb", "x" } }), "é\nbb  x\n")
end

function M.TestColumns:test_a_cell_stays_in_its_line_and_does_nothing_to_a_terminal()
  lu.assertEquals(columns.format({ { "a\nb", "\27[2J" }, { "c", "x" } }), "a\\x0Ab  \\x1B[2J\nc       x\n")
end

function M.TestColumns:test_no_rows_are_no_text() lu.assertEquals(columns.format({}), "") end

return M
