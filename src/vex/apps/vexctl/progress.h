#pragma once
// What is done just now, for a person who waits: one line that is written over, on a terminal alone.

#include "vex/apps/vexctl/output.h"

#include <cstdint>
#include <string>

namespace Vexctl {

/// The line goes with the object, so that what is written next stands alone.
class Progress
{
public:
    explicit Progress(Output& err) : m_err(err) {}
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// Shows a text in place of the one before; control characters are escaped.
    void Show(const std::string& text);
    /// Whether the one before has been there for a tenth of a second: for steps that may be many and short.
    bool IsDue() const;
    /// Takes the line away, for something else that is written.
    void Clear();

private:
    Output& m_err;
    std::int64_t m_shownAtMs = 0;
    bool m_isShown = false;
};

} // namespace Vexctl
