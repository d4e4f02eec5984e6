#pragma once
// Reading the text of a key for who passes it on at once.

#include "vex/core/dom.h"

#include <string>
#include <string_view>

namespace VexCore {

/// A copy of the text that a key reads as, as `CDom::Get` would give it. Takes nothing from the heap where it is short.
/// On the stack. Any thread.
class DomText
{
public:
    DomText(const CDom& dom, std::string_view key);
    DomText(const DomText&) = delete;
    DomText& operator=(const DomText&) = delete;

    /// False when the key has no value that reads as text.
    explicit operator bool() const { return m_text.data() != nullptr; }
    std::string_view Text() const { return m_text; }

private:
    std::string_view m_text;
    std::string m_long;
    char m_short[256];
};

} // namespace VexCore
