--- LuaUnit as test scripts know it: the one that the runner works with.
return require("tests.vexunit.luaunit")
