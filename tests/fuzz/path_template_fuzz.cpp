// Path templates: the first line is the path, the rest the plugins.
// The result is compared with one put together another way.

#include "vex/apps/vex/pluginpath.h"

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace {
std::vector<std::string> Pieces(const std::string& text, char separator)
{
    std::vector<std::string> pieces(1);
    for (const char c : text)
        if (c == separator)
            pieces.emplace_back();
        else
            pieces.back() += c;
    if (pieces.back().empty())
        pieces.pop_back(); // behind a separator at the end, or an empty text
    return pieces;
}

std::string Expand(const std::string& path, const std::string& plugins)
{
    if (plugins.empty())
        return path;
    std::string result;
    for (const std::string& entry : Pieces(path, ';'))
        for (const std::string& plugin : Pieces(plugins, ',')) {
            std::string copy;
            for (const char c : entry)
                copy += c == '@' ? plugin : std::string(1, c);
            result += (result.empty() ? "" : ";") + copy;
        }
    return result;
}

wxString Wide(const std::string& bytes)
{
    return wxString(bytes.data(), wxConvISO8859_1, bytes.size());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data),
                           size < 2048 ? size : 2048); // the result grows as a product
    const std::size_t split = text.find('\n');
    const std::string path = text.substr(0, split);
    const std::string plugins = split == std::string::npos ? "" : text.substr(split + 1);
    wxString widePath = Wide(path);
    wxString widePlugins = Wide(plugins);
    if (ExpandPathPlugins(widePath, widePlugins) != Wide(Expand(path, plugins)))
        std::abort();
    return 0;
}
