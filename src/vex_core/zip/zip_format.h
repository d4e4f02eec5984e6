#pragma once
// Numbers of the ZIP format that the reader and its checks share.

#include <cstddef>
#include <cstdint>

namespace VexCore {
namespace Zip {

constexpr std::uint32_t kLocalSignature = 0x04034b50;
constexpr std::uint32_t kDescriptorSignature = 0x08074b50;
constexpr std::uint32_t kDirectorySignature = 0x02014b50;
constexpr std::uint32_t kEndSignature = 0x06054b50;
constexpr std::uint32_t kEnd64Signature = 0x06064b50;
constexpr std::uint32_t kLocator64Signature = 0x07064b50;

constexpr std::size_t kLocalSize = 30;
constexpr std::size_t kDirectorySize = 46;
constexpr std::size_t kEndSize = 22;
constexpr std::size_t kEnd64Size = 56;
constexpr std::size_t kLocator64Size = 20;
constexpr std::size_t kMaxComment = 65535;

constexpr std::uint16_t kFlagEncrypted = 0x0001;
constexpr std::uint16_t kFlagDescriptor = 0x0008;
/// Deflate level (two bits), descriptor, UTF-8.
constexpr std::uint16_t kFlagsAccepted = 0x080e;

constexpr std::uint16_t kMethodStored = 0;
constexpr std::uint16_t kMethodDeflate = 8;
/// Deflate never expands more than this.
constexpr std::uint64_t kMaxExpansion = 1032;

constexpr std::uint16_t kExtraZip64 = 0x0001;
constexpr std::uint16_t kExtraUnicodePath = 0x7075;
constexpr std::uint16_t kExtraAsiUnix = 0x756e;

constexpr std::uint16_t kFull16 = 0xffff;
constexpr std::uint32_t kFull32 = 0xffffffff;

// Little-endian numbers at any address.
inline std::uint16_t Get16(const unsigned char* p)
{
    return std::uint16_t(p[0] | p[1] << 8);
}
inline std::uint32_t Get32(const unsigned char* p)
{
    return std::uint32_t(Get16(p)) | std::uint32_t(Get16(p + 2)) << 16;
}
inline std::uint64_t Get64(const unsigned char* p)
{
    return std::uint64_t(Get32(p)) | std::uint64_t(Get32(p + 4)) << 32;
}

} // namespace Zip
} // namespace VexCore
