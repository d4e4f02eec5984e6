local fs = require("vex.fs")
local lu = require("luaunit")
local plugin = require("spool.plugin")

local M = { TestSpool = {} }

-- Before and after each test: a folder of its own, named by the setting.
function M.TestSpool:setUp()
  self.folder = os.tmpname()
  os.remove(self.folder)
  assert(fs.mkdir(self.folder))
  dom0:Set("spool.Folder", self.folder)
end

function M.TestSpool:tearDown()
  for _, name in ipairs(fs.list(self.folder)) do os.remove(self.folder .. "/" .. name) end
  os.remove(self.folder)
  dom0:Set("spool.Folder", nil)
end

function M.TestSpool:write(name, content)
  local file = assert(io.open(self.folder .. "/" .. name, "w"))
  file:write(content)
  file:close()
end

function M.TestSpool:test_an_empty_folder_has_no_oldest_file()
  plugin.start(dom0)
  lu.assertEquals(plugin.collect(dom0), { files = 0, bytes = 0 })
end

function M.TestSpool:test_files_are_counted_and_folders_are_not()
  self:write("a", "12345")
  self:write("b", "123")
  assert(fs.mkdir(self.folder .. "/sub"))
  plugin.start(dom0)
  local values = plugin.collect(dom0)
  lu.assertEquals(values.files, 2)
  lu.assertEquals(values.bytes, 8)
  lu.assertTrue(values.oldest < 60)
end

function M.TestSpool:test_without_a_folder_it_does_not_start()
  dom0:Set("spool.Folder", nil)
  lu.assertErrorMsgContains("spool.Folder", plugin.start, dom0)
end

return M
