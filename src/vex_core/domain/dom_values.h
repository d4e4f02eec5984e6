#pragma once
// What a key of the domain holds, and how one kind reads as another. Pure rules, no locks.

#include "vex/core/dom.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <variant>

namespace VexCore {

using DomValue = std::variant<std::string, bool, std::int64_t, std::shared_ptr<CDomObject>>;

/// "true"/"false", "1"/"0", "yes"/"no" in any case. Anything else answers false and leaves `value` alone.
bool BoolFromText(std::string_view text, bool& value);
/// A decimal integer from the first to the last character, with an optional "-", that fits.
bool IntFromText(std::string_view text, std::int64_t& value);

bool TextOf(const DomValue& from, std::string& text);
bool BoolOf(const DomValue& from, bool& value);
bool IntOf(const DomValue& from, std::int64_t& value);
CDom::EType TypeOfValue(const DomValue& value);

/// UTF-8 of any text; what no UTF-8 exists for (a lone surrogate) becomes U+FFFD.
std::string BytesFromText(const wxString& text);

} // namespace VexCore
