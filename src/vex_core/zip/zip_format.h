#pragma once
// Numbers of the ZIP format that the reader and its checks share.

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace VexCore::Zip {

constexpr std::uint32_t localSignature = 0x04034b50;
constexpr std::uint32_t descriptorSignature = 0x08074b50;
constexpr std::uint32_t directorySignature = 0x02014b50;
constexpr std::uint32_t endSignature = 0x06054b50;
constexpr std::uint32_t end64Signature = 0x06064b50;
constexpr std::uint32_t locator64Signature = 0x07064b50;

constexpr std::size_t localSize = 30;
constexpr std::size_t directorySize = 46;
constexpr std::size_t endSize = 22;
constexpr std::size_t end64Size = 56;
constexpr std::size_t locator64Size = 20;
constexpr std::size_t maxComment = 65535;

constexpr std::uint16_t flagEncrypted = 0x0001;
constexpr std::uint16_t flagDescriptor = 0x0008;
/// Deflate level (two bits), descriptor, UTF-8.
constexpr std::uint16_t flagsAccepted = 0x080e;

constexpr std::uint16_t methodStored = 0;
constexpr std::uint16_t methodDeflate = 8;
/// Deflate never expands more than this.
constexpr std::uint64_t maxExpansion = 1032;
/// Nothing, deflated: some writers give it to a folder, Python's zipfile among them.
constexpr std::string_view emptyDeflate("\3\0", 2);

constexpr std::uint16_t extraZip64 = 0x0001;
constexpr std::uint16_t extraUnicodePath = 0x7075;
constexpr std::uint16_t extraAsiUnix = 0x756e;

constexpr std::uint16_t full16 = 0xffff;
constexpr std::uint32_t full32 = 0xffffffff;

// Little-endian numbers at any address.
inline std::uint16_t Get16(const unsigned char* p)
{
    return static_cast<std::uint16_t>(p[0] | p[1] << 8);
}
inline std::uint32_t Get32(const unsigned char* p)
{
    return static_cast<std::uint32_t>(Get16(p)) | static_cast<std::uint32_t>(Get16(p + 2)) << 16;
}
inline std::uint64_t Get64(const unsigned char* p)
{
    return static_cast<std::uint64_t>(Get32(p)) | static_cast<std::uint64_t>(Get32(p + 4)) << 32;
}

} // namespace VexCore::Zip
