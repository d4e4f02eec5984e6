--- Tables of text in aligned columns.

local text = require("vex.text")

local M = {}

-- A cell is part of a line, whatever it holds.
local function printable(rows)
  local shown = {}
  for index, row in ipairs(rows) do
    shown[index] = {}
    for column, cell in ipairs(row) do shown[index][column] = text.printable(cell) end
  end
  return shown
end

local function widths_of(rows)
  local widths = {}
  for _, row in ipairs(rows) do
    for index, cell in ipairs(row) do widths[index] = math.max(widths[index] or 0, text.length(cell)) end
  end
  return widths
end

--- Lays out rows of cells.
-- @param rows array of arrays of texts; each row as long as the first. What would not stay in its line, or does things
-- to a terminal, is shown as \xNN
-- @param options indent: text before each line; right: set of column numbers that are aligned to the right
-- @return the lines as one text, each ended by a line break; without blanks at a line's end
function M.format(rows, options)
  options, rows = options or {}, printable(rows)
  local right, widths, lines = options.right or {}, widths_of(rows), {}
  for _, row in ipairs(rows) do
    local cells = {}
    for index, cell in ipairs(row) do cells[index] = text.pad(cell, widths[index], right[index]) end
    local line = (options.indent or "") .. table.concat(cells, "  ")
    lines[#lines + 1] = line:gsub("%s+$", "") .. "\n"
  end
  return table.concat(lines)
end

return M
