#include "vex/apps/vexctl/text_table.h"

#include "vex/apps/vexctl/shown_text.h"

#include <algorithm>
#include <iterator>
#include <numeric>

namespace Vexctl {

namespace {
constexpr std::size_t gap = 2; // columns between two columns
constexpr std::size_t least = 3; // what a column keeps however narrow the terminal is

std::string Padded(const std::string& text, std::size_t columns, TextTable::Align align, bool isLast)
{
    const std::size_t own = Columns(text);
    const std::string blanks(columns > own ? columns - own : 0, ' ');
    if (align == TextTable::Align::Right)
        return blanks + text;
    return isLast ? text : text + blanks;
}

// The widest columns give way, the last one of several, until the table fits.
void Fit(std::vector<std::size_t>& widths, std::size_t room)
{
    std::size_t wanted = std::accumulate(widths.begin(), widths.end(), gap * (widths.size() - 1));
    for (; wanted > room; --wanted) {
        const auto widest = std::prev(std::max_element(widths.rbegin(), widths.rend()).base());
        if (*widest <= least)
            return;
        --*widest;
    }
}

} // namespace

void TextTable::Print(Output& out) const
{
    std::vector<std::vector<Cell>> rows;
    std::vector<Cell> titles;
    for (const Column& column : m_columns)
        titles.push_back({column.title, Colour::Faint});
    rows.push_back(std::move(titles));
    rows.insert(rows.end(), m_rows.begin(), m_rows.end());

    std::vector<std::size_t> widths(m_columns.size());
    for (std::vector<Cell>& row : rows)
        for (std::size_t i = 0; i < row.size(); ++i) {
            row[i].text = Shown(row[i].text);
            widths[i] = std::max(widths[i], Columns(row[i].text));
        }

    if (out.Width() > 0)
        Fit(widths, out.Width());
    const std::size_t last = m_columns.size() - 1;
    for (const std::vector<Cell>& row : rows) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i) {
            const std::string text = CutToColumns(row[i].text, widths[i]);
            line += out.Painted(row[i].colour, Padded(text, widths[i], m_columns[i].align, i == last));
            line.append(i == last ? 0 : gap, ' ');
        }
        line.erase(line.find_last_not_of(' ') + 1);
        out.Write(line + "\n");
    }
}

} // namespace Vexctl
