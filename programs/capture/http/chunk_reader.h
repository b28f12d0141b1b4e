// kp-capture: stepping through a body in chunks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace kp::capture {

/// Reads the chunked coding out of bytes that come in pieces, cut anywhere; nothing is stored.
///
/// Extensions and trailers are stepped over, bare line feeds are accepted.
class ChunkReader {
public:
    enum class Result {
        kMore,   ///< everything was taken, the body goes on
        kEnd,    ///< the body has ended behind what was taken
        kFault,  ///< this is no chunk: no size, one beyond 64 bits, or a line without an end
    };

    /// The longest size line, line end included, and the longest block of trailers.
    static constexpr std::size_t kLineLimit = 65536;

    /// Takes bytes from the front of @p bytes and adds to @p bodyBytes what was data.
    Result read(std::string_view& bytes, std::uint64_t& bodyBytes);

    /// Steps over lost bytes; false when they are not within the data of one chunk, and nobody can
    /// tell where the body goes on.
    bool skip(std::uint64_t count);

    /// Begins a new body.
    void restart() { *this = ChunkReader(); }

private:
    enum class Part { kSize, kExtension, kData, kDataEnd, kTrailer };

    bool size(std::string_view& bytes);
    bool extension(std::string_view& bytes);
    void data(std::string_view& bytes, std::uint64_t& bodyBytes);
    bool dataEnd(std::string_view& bytes);
    bool trailer(std::string_view& bytes);

    Part part_ = Part::kSize;
    bool hasDigits_ = false;    // of a size
    bool sawReturn_ = false;    // behind data
    bool lineIsBlank_ = true;   // so far, of a trailer
    bool ended_ = false;        // the last trailer was read
    std::size_t used_ = 0;      // of kLineLimit
    std::uint64_t length_ = 0;  // of the chunk, then what is still to come of it
};

}  // namespace kp::capture
