"""Archives of modules as people write them: what many_modules.h makes for the benches in C++."""
import zipfile

FUNCTIONS = """
-- Adds what is below the limit.
function M.total_{f}(values, start)
    local sum = start or {f}
    for index, value in ipairs(values) do
        if value < limit and value ~= {f} then
            sum = sum + value * index
        end
    end
    return sum
end

function M.name_{f}(self, key)
    local text = "module {n} " .. tostring(key)
    self.names[#self.names + 1] = {{ name = text, key = key, number = {f} }}
    return text
end
"""
END = "\nfunction M.new()\n    return setmetatable({ names = {}, limit = limit }, { __index = M })\nend\nreturn M\n"
BYTES = 2048


def source(number, limit):
    """About 2 KiB of code; another `limit` is another version of it."""
    code = f"-- Module {number}: counts, joins and looks up.\nlocal M = {{}}\nlocal limit = {limit}\n"
    for function in range(5):
        if len(code) > BYTES - 700:
            break
        code += FUNCTIONS.format(f=function, n=number)
    return code + END.replace("return M\n", "-" * max(2, BYTES - len(code) - len(END) - 1) + "\nreturn M\n")


def name(number):
    return f"part{number // 100}.module_{number}"


def write_archive(path, count, limit=10):
    with zipfile.ZipFile(path, "w", zipfile.ZIP_DEFLATED) as archive:
        for number in range(count):
            archive.writestr(zipfile.ZipInfo(name(number).replace(".", "/") + ".lua"), source(number, limit), zipfile.ZIP_DEFLATED)
