#pragma once
// A list of module names, as a setting has it. Pure; which settings are asked, and when, is trace.cpp's.

#include <algorithm>
#include <cstdint>
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
            if (name == "*") {
                m_all = true;
                m_marks = ~std::uint64_t{0};
            } else {
                m_marks |= MarkOf(m_names.emplace_back(name).c_str());
            }
        }
    }

    bool Contain(std::string_view module) const
    {
        return m_all || std::find(m_names.begin(), m_names.end(), module) != m_names.end();
    }

    /// A module whose mark is not among these is not in the list; one whose mark is may be.
    std::uint64_t Marks() const { return m_marks; }
    /// One bit, by the name's first two letters: to ask for more costs more than the answer is worth.
    static std::uint64_t MarkOf(const char* module)
    {
        const unsigned first = static_cast<unsigned char>(module[0]);
        const unsigned second = first == 0 ? 0 : static_cast<unsigned char>(module[1]);
        return std::uint64_t{1} << ((5 * first + second) & 63);
    }

private:
    bool m_all = false;
    std::uint64_t m_marks = 0;
    std::vector<std::string> m_names;
};

} // namespace VexCore
