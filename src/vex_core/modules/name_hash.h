#pragma once
// The hash that stands for a module's file name: in memory for each archive, and in the files of compiled chunks.

#include <cstdint>
#include <string_view>

namespace VexCore {

/// Spreads names over 64 bits. The same in every process and build, because cache files hold it (FNV-1a).
constexpr std::uint64_t HashName(std::string_view name)
{
    std::uint64_t hash = 14695981039346656037u;
    for (const char character : name) {
        hash ^= static_cast<unsigned char>(character);
        hash *= 1099511628211u;
    }
    return hash;
}

} // namespace VexCore
