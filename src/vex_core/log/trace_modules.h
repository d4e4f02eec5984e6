#pragma once
// A list of module names, as a setting has it. Pure; which settings are asked, and when, is trace.cpp's.

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

namespace VexCore {

/// A list of module names, separated by commas; blanks around a name do not count; "*" is every module. Immutable.
class TraceModules
{
public:
    explicit TraceModules(std::string_view list)
    {
        constexpr std::string_view blanks = " \t\r\n";
        while (!list.empty()) {
            const std::size_t comma = list.find(',');
            std::string_view name = list.substr(0, comma);
            list.remove_prefix(comma == std::string_view::npos ? list.size() : comma + 1);
            const std::size_t first = name.find_first_not_of(blanks);
            if (first == std::string_view::npos)
                continue;
            name = name.substr(first, name.find_last_not_of(blanks) - first + 1);
            if (name == "*")
                m_all = true;
            else
                m_names.emplace_back(name);
        }
    }

    bool Empty() const { return !m_all && m_names.empty(); }
    bool Contain(std::string_view module) const
    {
        return m_all || std::find(m_names.begin(), m_names.end(), module) != m_names.end();
    }

private:
    bool m_all = false;
    std::vector<std::string> m_names;
};

} // namespace VexCore
