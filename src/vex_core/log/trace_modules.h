#pragma once
// A list of module names, as a setting has it. Pure; which settings are asked, and when, is trace.cpp's.

#include <algorithm>
#include <array>
#include <cstddef>
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
                m_marks.fill(~std::uint64_t{0});
            } else {
                Mark(m_names.emplace_back(name));
            }
        }
    }

    bool Contain(std::string_view module) const
    {
        return m_all || std::find(m_names.begin(), m_names.end(), module) != m_names.end();
    }

    /// For each of a name's first letters, its end included: a bit for each letter that stands there in a name of the
    /// list.
    static constexpr std::size_t markedLetters = 16;
    const std::array<std::uint64_t, markedLetters>& Marks() const { return m_marks; }

    /// False: the module is not in the list of these marks; true: it may be. `markAt` gives the mark of a letter by its
    /// place, and is asked no further than for the first letter that tells.
    template <class MarkAt>
    static bool MayBeIn(MarkAt markAt, const char* module)
    {
#pragma GCC unroll 16 // no counting: a fifth of the time
        for (std::size_t place = 0; place < markedLetters; ++place) {
            if (!Has(markAt(place), module[place]))
                return false;
            if (module[place] == '\0')
                break;
        }
        return true;
    }

private:
    static unsigned BitOf(char letter)
    {
        return static_cast<unsigned char>(letter) & 63;
    }
    static bool Has(std::uint64_t mark, char letter)
    {
        return (mark >> BitOf(letter) & 1) != 0;
    }

    void Mark(const std::string& name)
    {
        for (std::size_t place = 0; place < std::min(name.size() + 1, markedLetters); ++place)
            m_marks[place] |= std::uint64_t{1} << BitOf(name.c_str()[place]);
    }

    bool m_all = false;
    std::array<std::uint64_t, markedLetters> m_marks{};
    std::vector<std::string> m_names;
};

} // namespace VexCore
