#include "http/chunk_reader.h"

#include <algorithm>
#include <limits>

namespace kp::capture {

namespace {

int hexDigit(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

}  // namespace

ChunkReader::Result ChunkReader::read(std::string_view& bytes, std::uint64_t& bodyBytes) {
    while (!bytes.empty()) {
        bool isGood = true;
        switch (part_) {
            case Part::kSize:
                isGood = size(bytes);
                break;
            case Part::kExtension:
                isGood = extension(bytes);
                break;
            case Part::kData:
                data(bytes, bodyBytes);
                break;
            case Part::kDataEnd:
                isGood = dataEnd(bytes);
                break;
            case Part::kTrailer:
                isGood = trailer(bytes);
                break;
        }
        if (!isGood)
            return Result::kFault;
        if (ended_)
            return Result::kEnd;
    }
    return Result::kMore;
}

bool ChunkReader::skip(std::uint64_t count) {
    if (part_ != Part::kData || count > length_)
        return false;
    length_ -= count;
    if (length_ == 0)
        part_ = Part::kDataEnd;
    return true;
}

bool ChunkReader::size(std::string_view& bytes) {
    const int digit = hexDigit(bytes[0]);
    if (digit < 0) {
        part_ = Part::kExtension;
        return hasDigits_;
    }
    constexpr std::uint64_t kMost = std::numeric_limits<std::uint64_t>::max();
    if (length_ > kMost >> 4 || ++used_ > kLineLimit)
        return false;
    hasDigits_ = true;
    length_ = length_ << 4 | static_cast<std::uint64_t>(digit);
    bytes.remove_prefix(1);
    return true;
}

bool ChunkReader::extension(std::string_view& bytes) {
    const std::size_t end = bytes.find('\n');
    const std::size_t size = end == std::string_view::npos ? bytes.size() : end + 1;
    used_ += size;
    if (used_ > kLineLimit)
        return false;
    bytes.remove_prefix(size);
    if (end == std::string_view::npos)
        return true;
    used_ = 0;
    part_ = length_ == 0 ? Part::kTrailer : Part::kData;
    return true;
}

void ChunkReader::data(std::string_view& bytes, std::uint64_t& bodyBytes) {
    const auto taken = static_cast<std::size_t>(std::min<std::uint64_t>(length_, bytes.size()));
    bytes.remove_prefix(taken);
    bodyBytes += taken;
    length_ -= taken;
    if (length_ == 0)
        part_ = Part::kDataEnd;
}

bool ChunkReader::dataEnd(std::string_view& bytes) {
    const char c = bytes[0];
    bytes.remove_prefix(1);
    if (c == '\n') {
        restart();
        return true;
    }
    if (c != '\r' || sawReturn_)
        return false;
    sawReturn_ = true;
    return true;
}

bool ChunkReader::trailer(std::string_view& bytes) {
    if (++used_ > kLineLimit)
        return false;
    const char c = bytes[0];
    bytes.remove_prefix(1);
    if (c != '\n') {
        if (c != '\r')
            lineIsBlank_ = false;
        return true;
    }
    ended_ = lineIsBlank_;
    lineIsBlank_ = true;
    return true;
}

}  // namespace kp::capture
