#pragma once
// Turns any bytes into an archive whose checksums, sizes and places fit, with a few fields bent: plain
// mutation of an archive's bytes hardly ever gets past the first comparison. Bytes that start as an archive
// does are taken as they are.

#include "support/zip_builder.h"

#include <cstdint>
#include <string>

namespace Test {

class RecipeBytes
{
public:
    RecipeBytes(const std::uint8_t* data, std::size_t size) : m_data(data), m_size(size) {}

    bool AtEnd() const { return m_size == 0; }
    unsigned Byte()
    {
        if (m_size == 0)
            return 0;
        --m_size;
        return *m_data++;
    }
    unsigned Word() { return Byte() | Byte() << 8; }
    std::string Text(std::size_t size)
    {
        std::string text;
        while (text.size() < size && m_size != 0)
            text += static_cast<char>(Byte());
        return text;
    }

private:
    const std::uint8_t* m_data;
    std::size_t m_size;
};

inline void Bend(ZipRecord& record, unsigned field, unsigned value)
{
    switch (field % 12) {
    case 0:
        record.flags ^= static_cast<std::uint16_t>(value);
        break;
    case 1:
        record.method ^= static_cast<std::uint16_t>(value);
        break;
    case 2:
        record.crc32 ^= value;
        break;
    case 3:
        record.packedSize += value;
        break;
    case 4:
        record.size += value;
        break;
    case 5:
        record.name += static_cast<char>(value);
        break;
    case 6:
        record.extra += ExtraField(value & 1 ? 1 : 0x5455, std::string(value % 29, static_cast<char>(value)));
        break;
    case 7:
        record.disk = static_cast<std::uint16_t>(value);
        break;
    case 8:
        record.attributes ^= value << 16;
        break;
    case 9:
        record.attributes ^= value & 0xff;
        break;
    case 10:
        record.offset = value;
        break;
    default:
        record.extra += static_cast<char>(value);
        break;
    }
}

inline void AddItem(ZipBuilder& builder, RecipeBytes& bytes)
{
    static const char* const parts[] = {"a", "b/", "lib/", "x.lua", "c/d", "..", "/", "e"};
    const unsigned shape = bytes.Byte();
    std::string name = shape & 1 ? bytes.Text(shape >> 5) : std::string();
    for (unsigned i = 0, choice = bytes.Byte(); i < 3; ++i, choice >>= 3)
        name += parts[choice & 7];
    const std::string data =
        shape & 2 ? bytes.Text(bytes.Byte()) : std::string(bytes.Word(), static_cast<char>(bytes.Byte()));
    const bool folder = !name.empty() && name.back() == '/';
    ZipItem& item = folder ? builder.AddFolder(name) : builder.Add(name, data, shape & 4 ? 8 : 0, 0100755);
    if (shape & 8)
        item.WithDescriptor(shape & 16, shape & 32, shape & 64);
    if (shape & 128)
        (shape & 16 ? item.WithLocalZip64() : item.WithCentralZip64());
    for (unsigned bends = bytes.Byte() & 3; bends != 0 && bytes.Byte() > 127; --bends) {
        const unsigned field = bytes.Byte();
        const unsigned value = bytes.Word();
        if (field & 0x40)
            Bend(item.local, field, value);
        if (!(field & 0x80))
            Bend(item.central, field, value);
        if (field == 0xff && !item.packed.empty())
            item.packed[value % item.packed.size()] ^= static_cast<char>(value >> 8 | 1);
    }
}

inline std::string ArchiveFromRecipe(const std::uint8_t* data, std::size_t size)
{
    if (size >= 2 && data[0] == 'P' && data[1] == 'K')
        return std::string(reinterpret_cast<const char*>(data), size);
    RecipeBytes bytes(data, size);
    ZipBuilder builder;
    const unsigned shape = bytes.Byte();
    builder.zip64End = shape & 1;
    if (shape & 2)
        builder.comment = bytes.Text(bytes.Byte());
    if (shape & 4)
        builder.after.assign(bytes.Byte(), '\0');
    if (shape & 8)
        builder.endCount = static_cast<std::uint16_t>(bytes.Byte());
    if (shape & 16)
        builder.before = bytes.Text(1);
    for (int i = 0; i < 24 && !bytes.AtEnd(); ++i)
        AddItem(builder, bytes);
    return builder.Build();
}

} // namespace Test
