#pragma once
// Inflating piece by piece, so that memory does not grow with an entry. Two libraries can do it; the faster one is not
// on every system.

#include <cstddef>
#include <memory>

namespace VexCore::Zip {

/// Inflates raw deflate streams, one after the other. One thread.
class Inflate
{
public:
    enum class State {
        Going, ///< the bytes that were given are used up, or there is no more room
        Ended, ///< the last block has ended, and all of it was made
        Damaged, ///< no stream of deflate
    };

    virtual ~Inflate() = default;
    /// Begins a new stream; what is left of another one is forgotten.
    virtual void Begin() = 0;
    /// The next packed bytes, which must stay until they are used up; those before must be.
    virtual void Give(const char* data, std::size_t size) = 0;
    /// Puts up to `size` bytes at `out` and says in `made` how many, also where the state is Damaged.
    virtual State Take(char* out, std::size_t size, std::size_t& made) = 0;
    /// How many of the packed bytes are not used: when a stream has ended, they lie behind its end.
    virtual std::size_t Unused() const = 0;
};

/// By zlib. Throws std::bad_alloc.
std::unique_ptr<Inflate> NewZlibInflate();
/// By ISA-L, twice as fast, which pays for small entries too; null in a build without it. Throws std::bad_alloc.
std::unique_ptr<Inflate> NewIsalInflate();

} // namespace VexCore::Zip
