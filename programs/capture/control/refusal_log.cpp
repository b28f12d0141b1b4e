#include "control/refusal_log.h"

#include "kp/tools/tools.h"

namespace kp::capture {

namespace {

std::string textOf(std::uint32_t address) {
    char text[16];
    KP_Tools::IPAddressString(address, text);
    return text;
}

}  // namespace

std::string RefusalLog::refused(std::uint32_t address, Time now) {
    std::string line = due(now);  // of the burst before
    if (isBurst_) {
        ++count_;
        last_ = address;
        return line;
    }
    isBurst_ = true;
    told_ = now;
    return "a client at " + textOf(address) + " was refused";
}

std::string RefusalLog::due(Time now, bool isEnd) {
    if (!isBurst_ || (now - told_ < kPeriod && !isEnd))
        return "";
    isBurst_ = count_ != 0;
    if (!isBurst_)
        return "";
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(now - told_).count();
    const std::string line = std::to_string(count_) + " more clients were refused in " +
                             std::to_string(seconds) + " s, the last at " + textOf(last_);
    told_ = now;
    count_ = 0;
    return line;
}

}  // namespace kp::capture
