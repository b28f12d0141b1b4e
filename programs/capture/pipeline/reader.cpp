#include "pipeline/reader.h"

#include <algorithm>
#include <exception>
#include <utility>

namespace kp::capture {

namespace {

constexpr std::chrono::milliseconds kLongestRound{100};
constexpr std::chrono::milliseconds kCountInterval{1000};

}  // namespace

Reader::Reader(PacketSource& source, Shared& shared, std::optional<std::int64_t> start)
    : source_(source),
      shared_(shared),
      dispatcher_(shared.parsers, shared.sending),
      isPaced_(source_.progress() < 0),
      start_(start),
      filterChanges_(shared.filterChanges) {}

void Reader::packet(const Packet& packet) {
    ++packets_;
    bytes_ += packet.bytes.size();
    Timestamp time = packet.time;
    if (start_) {
        if (!shift_)
            shift_ = *start_ - time.seconds;
        time.seconds = std::max<std::int64_t>(time.seconds + *shift_, 0);
    }
    if (segments_.read(packet.linkType, packet.bytes, time, segment_))
        dispatcher_.segment(segment_);
}

// Nothing here is done for each packet: of a device under load a turn has thousands.
bool Reader::turn() {
    const PacketSource::Result result = source_.read(*this);
    shared_.counts.packets += packets_;
    shared_.counts.bytes += bytes_;
    packets_ = bytes_ = 0;
    if (result == PacketSource::Result::kEnd || result == PacketSource::Result::kFault) {
        end_ = result;
        segments_.finish();
        count();
        dispatcher_.endRound();
        return false;
    }
    if (filterChanges_ != shared_.filterChanges)
        changeFilter();
    const Clock::time_point now = Clock::now();
    // Who waits at the other end of a pipe has nothing else to send before our answer; a device has
    // blocks of packets that are late already.
    const bool isLate = now - roundEnded_ >= kLongestRound;
    const bool isDue = isLate || (!source_.isLive() && result == PacketSource::Result::kEmpty);
    if (isPaced_ && isDue && dispatcher_.hasCollected()) {
        dispatcher_.endRound();
        roundEnded_ = now;
    }
    if (now - counted_ >= kCountInterval) {
        count();
        counted_ = now;
    }
    return true;
}

void Reader::count() {
    const std::uint64_t dropped = source_.dropped();
    shared_.counts.dropped += dropped - std::min(dropped, dropped_);
    dropped_ = std::max(dropped, dropped_);
    shared_.counts.filteredOut = source_.filteredOut();
}

void Reader::changeFilter() {
    filterChanges_ = shared_.filterChanges;
    const std::string fault = source_.setFilter(shared_.filter());
    if (!fault.empty())
        shared_.log("the new filter is refused, the old one stays: " + fault);
}

ReaderThread::~ReaderThread() {
    stop();
    join(nullptr, 0);
}

int ReaderThread::doTask() {
    try {
        if (reader_.turn())
            return 0;
    } catch (const std::exception& error) {
        faults_.add(error.what());
    } catch (const KP_NoMoreMemoryException&) {
        faults_.add("out of memory");
    }
    ended_();
    setContinue(0);
    return 0;
}

}  // namespace kp::capture
