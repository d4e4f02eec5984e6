-- The bundled application.
local M = {}

function M.main()
  return 0
end

return M
