// The inflating that every build has, by zlib.
#include "vex_core/zip/zip_inflate.h"

#include <new>

#include <zlib.h>

namespace VexCore::Zip {
namespace {
class ZlibInflate : public Inflate
{
public:
    ZlibInflate()
    {
        if (inflateInit2(&m_stream, -MAX_WBITS) != Z_OK)
            throw std::bad_alloc();
    }
    ~ZlibInflate() override { inflateEnd(&m_stream); }
    ZlibInflate(const ZlibInflate&) = delete;
    ZlibInflate& operator=(const ZlibInflate&) = delete;

    void Begin() override
    {
        m_stream.avail_in = 0;
        inflateReset(&m_stream);
    }

    void Give(const char* data, std::size_t size) override
    {
        m_stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data)); // which it only reads
        m_stream.avail_in = static_cast<uInt>(size);
    }

    State Take(char* out, std::size_t size, std::size_t& made) override
    {
        m_stream.next_out = reinterpret_cast<Bytef*>(out);
        m_stream.avail_out = static_cast<uInt>(size);
        const int result = inflate(&m_stream, Z_NO_FLUSH);
        made = size - m_stream.avail_out;
        if (result == Z_MEM_ERROR)
            throw std::bad_alloc();
        if (result == Z_STREAM_END)
            return State::Ended;
        // Z_BUF_ERROR: there was nothing to read or no room.
        return result == Z_OK || result == Z_BUF_ERROR ? State::Going : State::Damaged;
    }

    std::size_t Unused() const override { return m_stream.avail_in; }

private:
    z_stream m_stream{};
};

} // namespace

std::unique_ptr<Inflate> NewZlibInflate()
{
    return std::make_unique<ZlibInflate>();
}

} // namespace VexCore::Zip
