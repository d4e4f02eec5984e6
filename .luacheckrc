std = "lua52"
max_line_length = 120
self = false
files["lua/vx_agent"] = { read_globals = { "dom0", "dom", "vexAppModule" } }
files["lua/vex"] = { read_globals = { "dom0", "dom" } }
files["lua/plugins"] = { read_globals = { "dom0", "dom" } }
files["lua/tests"] = { read_globals = { "dom0", "dom", "vexAppModule" } }
files["tests/lua"] = { globals = { "dom0", "dom" }, read_globals = { "vexAppModule" } }
files["docs/examples"] = { read_globals = { "dom0", "dom" } }
