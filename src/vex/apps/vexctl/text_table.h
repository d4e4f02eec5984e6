#pragma once
// Rows in aligned columns.

#include "vex/apps/vexctl/output.h"

#include <string>
#include <vector>

namespace Vexctl {

class TextTable
{
public:
    enum class Align { Left, Right };
    struct Column
    {
        const char* title;
        Align align = Align::Left;
    };
    struct Cell
    {
        std::string text; ///< control characters are escaped when it is printed
        Colour colour = Colour::None;
    };

    explicit TextTable(std::vector<Column> columns) : m_columns(std::move(columns)) {}

    void AddRow(std::vector<Cell> cells) { m_rows.push_back(std::move(cells)); }
    bool Empty() const { return m_rows.empty(); }
    /// With the titles. Where the output has a width, the widest columns are cut so that each row fits.
    void Print(Output& out) const;

private:
    const std::vector<Column> m_columns;
    std::vector<std::vector<Cell>> m_rows;
};

} // namespace Vexctl
