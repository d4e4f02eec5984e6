#pragma once
// What a key of the domain holds, and how one kind reads as another. Pure rules, no locks.

#include "vex/core/dom.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace VexCore {

struct DomValueEnd;

/// The value of a key: one block of memory with the kind in front and what it says behind it. It never changes, so
/// that who found it in a domain reads it without a lock.
class DomValue
{
public:
    using Pointer = std::unique_ptr<DomValue, DomValueEnd>;

    /// `block`: memory of `BytesOfText` to put it into, from `operator new`; else it gets some.
    static Pointer NewText(std::string_view text, void* block = nullptr);
    static Pointer NewBool(bool value);
    static Pointer NewInt(std::int64_t value);
    static Pointer NewObject(std::shared_ptr<CDomObject> object);
    /// Lets go of an object and gives the block back. All other kinds are nothing but their block.
    static void Destroy(DomValue* value);

    CDom::EType Type() const { return static_cast<CDom::EType>(m_sizeAndType % typeCount); }
    /// How much memory it takes.
    std::size_t Bytes() const { return BytesOfText(m_sizeAndType / typeCount); }
    /// How much a text of that length takes: texts of about one length may follow each other in the same memory.
    static constexpr std::size_t BytesOfText(std::size_t size)
    {
        constexpr std::size_t step = 16; // of what heaps give out
        return sizeof(DomValue) + (size + step - 1) / step * step + (size == 0 ? step : 0);
    }

    /// Each for its own kind alone.
    std::string_view Text() const { return {static_cast<const char*>(Content()), m_sizeAndType / typeCount}; }
    bool Bool() const { return Int() != 0; }
    std::int64_t Int() const;
    const std::shared_ptr<CDomObject>& Object() const;

private:
    static constexpr std::size_t typeCount = 8; // no fewer than there are

    DomValue(CDom::EType type, std::size_t size) : m_sizeAndType(size * typeCount + static_cast<std::size_t>(type)) {}
    static DomValue* NewBlock(CDom::EType type, std::size_t size, void* block = nullptr);
    static Pointer NewNumber(CDom::EType type, std::int64_t number);

    const void* Content() const { return this + 1; }

    const std::size_t m_sizeAndType; // of the content behind this
};

struct DomValueEnd
{
    void operator()(DomValue* value) const { DomValue::Destroy(value); }
};

/// "true"/"false", "1"/"0", "yes"/"no" in any case. Anything else answers false and leaves `value` alone.
bool BoolFromText(std::string_view text, bool& value);
/// A decimal integer from the first to the last character, with an optional "-", that fits.
bool IntFromText(std::string_view text, std::int64_t& value);

/// The text that a value reads as, in no more memory than the stack has where it is short.
class TextOfValue
{
public:
    explicit TextOfValue(const DomValue& from)
        : m_text(from.Type() == CDom::EType::Text ? from.Text() : ConvertedText(from))
    {}
    TextOfValue(const TextOfValue&) = delete;
    TextOfValue& operator=(const TextOfValue&) = delete;

    /// False for an object, which reads as none.
    explicit operator bool() const { return m_text.data() != nullptr; }
    /// A text of the value lies in the value itself.
    std::string_view Text() const { return m_text; }

private:
    std::string_view ConvertedText(const DomValue& from);

    std::string_view m_text;
    char m_digits[24];
};

bool TextOf(const DomValue& from, std::string& text);
bool BoolOf(const DomValue& from, bool& value);
bool IntOf(const DomValue& from, std::int64_t& value);

/// UTF-8 of any text; what no UTF-8 exists for (a lone surrogate) becomes U+FFFD.
std::string BytesFromText(const wxString& text);

} // namespace VexCore
