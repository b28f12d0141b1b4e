#include "packet/fragments.h"

#include <algorithm>

#include "packet/bytes.h"

namespace kp::capture {

namespace {

constexpr std::uint32_t kMostData = 65535;
constexpr unsigned kMoreFollow = 0x2000;
constexpr unsigned kOffset = 0x1fff;
constexpr std::size_t kSmallestHeader = 20;

}  // namespace

bool Fragments::isFragment(std::string_view packet) {
    return (read16(packet, 6) & (kMoreFollow | kOffset)) != 0;
}

// Stores those of the bytes that are missing.
void Fragments::fill(Unfinished& packet, std::uint32_t begin, std::string_view bytes) {
    const auto end = begin + static_cast<std::uint32_t>(bytes.size());
    if (packet.data.size() < end)
        packet.data.resize(end);
    std::vector<Range> missing;
    for (const Range& gap : packet.missing) {
        const Range known{std::max(gap.begin, begin), std::min(gap.end, end)};
        if (known.begin >= known.end) {
            missing.push_back(gap);
            continue;
        }
        packet.data.replace(known.begin, known.end - known.begin, bytes, known.begin - begin,
                            known.end - known.begin);
        if (gap.begin < known.begin)
            missing.push_back({gap.begin, known.begin});
        if (known.end < gap.end)
            missing.push_back({known.end, gap.end});
    }
    packet.missing = std::move(missing);
}

void Fragments::giveUp(std::deque<Key>::iterator place) {
    packets_.erase(*place);
    byAge_.erase(place);
    ++givenUp_;
}

std::string_view Fragments::add(std::string_view packet, Timestamp time) {
    const std::size_t headerSize = std::size_t{byteAt(packet, 0) & 15} * 4;
    const std::size_t total = std::min<std::size_t>(read16(packet, 2), packet.size());
    if (headerSize < kSmallestHeader || total <= headerSize)
        return {};
    const std::string_view data = packet.substr(headerSize, total - headerSize);
    const std::uint32_t begin = (read16(packet, 6) & kOffset) * 8;
    const auto end = begin + static_cast<std::uint32_t>(data.size());
    const bool isLast = (read16(packet, 6) & kMoreFollow) == 0;
    // What was cut at the snap length, or reaches beyond the largest packet, can never be whole.
    if (end > kMostData || read16(packet, 2) > packet.size())
        return {};

    const Key key{read32(packet, 12), read32(packet, 16), read16(packet, 4),
                  static_cast<std::uint8_t>(byteAt(packet, 9))};
    const auto isOld = [&](const Key& each) {
        return time.seconds - packets_.at(each).since > kSeconds;
    };
    while (!byAge_.empty() && isOld(byAge_.front()))
        giveUp(byAge_.begin());
    if (packets_.count(key) != 0 && isOld(key))
        giveUp(std::find(byAge_.begin(), byAge_.end(), key));
    auto place = packets_.find(key);
    if (place == packets_.end()) {
        if (packets_.size() >= kMostPackets)
            giveUp(byAge_.begin());
        place = packets_.try_emplace(key).first;
        place->second.since = time.seconds;
        place->second.missing.push_back({0, kMostData});
        byAge_.push_back(key);
    }
    Unfinished& unfinished = place->second;
    // Only one of two that contradict each other about the end can be right: the first.
    if (unfinished.knowsEnd ? end > unfinished.data.size() : isLast && unfinished.data.size() > end)
        return {};
    fill(unfinished, begin, data);
    if (begin == 0 && unfinished.header.empty())
        unfinished.header = packet.substr(0, headerSize);
    if (isLast && !unfinished.knowsEnd) {
        unfinished.knowsEnd = true;
        fill(unfinished, end, std::string(kMostData - end, '\0'));
        unfinished.data.resize(end);  // what was not there is not missing any more
    }
    if (!unfinished.missing.empty() || unfinished.header.empty())
        return {};

    whole_ = unfinished.header + unfinished.data;
    const std::size_t size = std::min<std::size_t>(whole_.size(), kMostData);
    whole_[2] = static_cast<char>(size >> 8);
    whole_[3] = static_cast<char>(size);
    whole_[6] = whole_[7] = '\0';
    packets_.erase(place);
    byAge_.erase(std::find(byAge_.begin(), byAge_.end(), key));
    return whole_;
}

}  // namespace kp::capture
