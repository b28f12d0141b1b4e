#include "control/login_limiter.h"

#include <algorithm>

namespace kp::capture {

namespace {

// Only this one: 127.0.0.2 and the others are as easy to have as any address of a network.
constexpr std::uint32_t kThisMachine = 0x7F000001;

}  // namespace

LoginLimiter::LoginLimiter() {
    known_.emplace(kThisMachine, Known{order_.end(), {}});
}

bool LoginLimiter::isFree(std::uint32_t address, Time now) const {
    const auto it = known_.find(address);
    return it != known_.end() && it->second.forgotten - now <= (kFreeFailures - 1) * kPauseOfOne;
}

std::optional<LoginLimiter::Time> LoginLimiter::ask(std::uint32_t address, Time now) {
    if (isFree(address, now))
        return {};
    for (auto it = strangers_.begin(); it != strangers_.end();)
        it = it->second <= now ? strangers_.erase(it) : std::next(it);
    const auto own = strangers_.find(address);
    const Time possible = std::max(next_, own != strangers_.end() ? own->second : now);
    if (possible > now)
        return possible;
    next_ = now + kPauseOfAll;
    strangers_[address] = now + kPauseOfOne;
    return {};
}

void LoginLimiter::succeeded(std::uint32_t address) {
    const auto [it, isNew] = known_.try_emplace(address, Known{order_.end(), {}});
    it->second.forgotten = {};
    if (address == kThisMachine)
        return;
    if (isNew) {
        it->second.place = order_.insert(order_.begin(), address);
    } else {
        order_.splice(order_.begin(), order_, it->second.place);
    }
    if (order_.size() > kMostKnown) {
        known_.erase(order_.back());
        order_.pop_back();
    }
}

void LoginLimiter::failed(std::uint32_t address, Time now) {
    const auto it = known_.find(address);
    if (it == known_.end())
        return;
    const Time start = std::max(it->second.forgotten, now);
    it->second.forgotten = std::min(start + kPauseOfOne, now + 2 * kFreeFailures * kPauseOfOne);
}

}  // namespace kp::capture
