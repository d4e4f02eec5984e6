// In builds with ISA-L only; zip_inflate_no_isal.cpp is there for the others.
#include "vex_core/zip/zip_inflate.h"

#include <cstdint>

#include <isa-l/igzip_lib.h>

namespace VexCore::Zip {
namespace {
class IsalInflate : public Inflate
{
public:
    IsalInflate() { isal_inflate_init(&m_state); }

    void Begin() override
    {
        isal_inflate_reset(&m_state); // which leaves the mode: a raw stream, without a checksum
        m_state.avail_in = 0;
    }

    void Give(const char* data, std::size_t size) override
    {
        m_state.next_in = reinterpret_cast<std::uint8_t*>(const_cast<char*>(data)); // which it only reads
        m_state.avail_in = static_cast<std::uint32_t>(size);
    }

    State Take(char* out, std::size_t size, std::size_t& made) override
    {
        m_state.next_out = reinterpret_cast<std::uint8_t*>(out);
        m_state.avail_out = static_cast<std::uint32_t>(size);
        const int result = isal_inflate(&m_state);
        made = size - m_state.avail_out;
        if (result < 0)
            return State::Damaged;
        return m_state.block_state == ISAL_BLOCK_FINISH ? State::Ended : State::Going;
    }

    // It takes bytes into a word of bits, and may not give back those that it did not need.
    std::size_t Unused() const override
    {
        return m_state.avail_in + static_cast<std::size_t>(m_state.read_in_length) / 8;
    }

private:
    inflate_state m_state; // 84 KiB, most of them the window
};

} // namespace

std::unique_ptr<Inflate> NewIsalInflate()
{
    return std::make_unique<IsalInflate>();
}

} // namespace VexCore::Zip
