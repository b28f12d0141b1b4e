#include "output/summary.h"

#include <cstdio>

namespace kp::capture {

namespace {

using Clock = std::chrono::steady_clock;

std::string fixed(double value, int digits) {
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", digits, value);
    return text;
}

std::string megabytes(std::uint64_t bytes) {
    return fixed(static_cast<double>(bytes) / 1e6, 1) + " MB";
}

std::string row(const char* label, std::uint64_t watched, std::uint64_t seen) {
    char text[96];
    std::snprintf(text, sizeof text, "%-16s%12llu%12llu\n", label,
                  static_cast<unsigned long long>(watched), static_cast<unsigned long long>(seen));
    return text;
}

}  // namespace

Summary::Summary() : start_(Clock::now()) {}

double Summary::seconds() const {
    return std::chrono::duration<double>(Clock::now() - start_).count();
}

void Summary::count(Counts& counts, const Transaction& transaction, const Judgement& judgement) {
    ++counts.all;
    ++counts.byClass[static_cast<std::size_t>(transaction.status / 100)];
    if (judgement.content)
        ++counts.content;
    if (judgement.validPage)
        ++counts.validPages;
    if (judgement.entryPoint)
        ++counts.entryPoints;
}

void Summary::addTransaction(const Transaction& transaction, const Judgement& judgement) {
    const std::lock_guard<std::mutex> lock(mutex_);
    count(seen_, transaction, judgement);
    if (judgement.inRanges)
        count(watched_, transaction, judgement);
}

std::vector<std::pair<std::string, std::string>> Summary::status() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return {{"seconds", fixed(seconds(), 0)},
            {"packets", std::to_string(packets_.packets)},
            {"bytes", std::to_string(packets_.bytes)},
            {"filtered_out", std::to_string(packets_.filteredOut)},
            {"dropped", std::to_string(packets_.dropped)},
            {"interface_dropped", std::to_string(interfaceDropped_)},
            {"connections", std::to_string(connections_)},
            {"transactions", std::to_string(seen_.all)},
            {"transactions_in_ranges", std::to_string(watched_.all)},
            {"unanswered", std::to_string(seen_.byClass[0])}};
}

std::string Summary::progressLine(double done) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::string line = "kp-capture: ";
    if (done >= 0)
        line += fixed(done * 100, 0) + " %, ";
    const double rate = static_cast<double>(packets_.bytes.load()) / 1e6 / seconds();
    return line + std::to_string(packets_.packets) + " packets, " +
           megabytes(packets_.bytes.load()) + ", " + fixed(rate, 1) + " MB/s, " +
           std::to_string(seen_.all) + " transactions";
}

std::string Summary::text() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    const double elapsed = seconds();
    const double divisor = elapsed > 0 ? elapsed : 1e-9;
    std::string text = "packets      " + std::to_string(packets_.packets);
    if (packets_.filteredOut != 0)
        text += " (" + std::to_string(packets_.filteredOut) + " more filtered out)";
    if (packets_.dropped != 0)
        text += " (" + std::to_string(packets_.dropped) + " more dropped by the system)";
    if (interfaceDropped_ != 0)
        text += " (" + std::to_string(interfaceDropped_) + " more dropped by the interface)";
    text += "\nbytes        " + std::to_string(packets_.bytes);
    if (missingBytes_ != 0)
        text += " (" + std::to_string(missingBytes_) + " bytes of connections are missing)";
    if (!unread_.empty())
        text += "\nnot read     " + unread_;
    text += "\nconnections  " + std::to_string(connections_);
    if (givenUp_ != 0)
        text += " (" + std::to_string(givenUp_) + " given up because of the memory limit)";
    if (isRecorded_)
        text += "\nrecorded     " + std::to_string(recorded_) + " transactions";
    if (notRecorded_ != 0)
        text += " (" + std::to_string(notRecorded_) + " more could not be recorded)";
    text += "\nseconds      " + fixed(elapsed, 3);
    text += "\nrate         " + fixed(static_cast<double>(packets_.packets.load()) / divisor, 0) +
            " packets/s, " + fixed(static_cast<double>(packets_.bytes.load()) / 1e6 / divisor, 1) +
            " MB/s\n";

    text += "                  in ranges      in all\n";
    text += row("transactions", watched_.all, seen_.all);
    constexpr const char* kClasses[] = {"  no answer", "  1xx", "  2xx", "  3xx", "  4xx",
                                        "  5xx",       "  6xx", "  7xx", "  8xx", "  9xx"};
    for (std::size_t i = 0; i < seen_.byClass.size(); ++i) {
        // The usual classes always, so that two summaries can be laid side by side.
        const bool isUsual = i == 0 || (i >= 2 && i <= 5);
        if (isUsual || seen_.byClass[i] != 0) {
            text += row(kClasses[i], watched_.byClass[i], seen_.byClass[i]);
        }
    }
    text += row("content", watched_.content, seen_.content);
    text += row("valid pages", watched_.validPages, seen_.validPages);
    text += row("entry points", watched_.entryPoints, seen_.entryPoints);
    return text;
}

bool ProgressDisplay::isDue() const {
    return enabled_ && Clock::now() - last_ >= std::chrono::milliseconds(100);
}

void ProgressDisplay::show(const std::string& line) {
    if (!enabled_)
        return;
    std::fprintf(stderr, "\r%s\033[K", line.c_str());
    std::fflush(stderr);
    last_ = Clock::now();
    shown_ = true;
}

void ProgressDisplay::clear() {
    if (shown_)
        std::fputs("\r\033[K", stderr);
    shown_ = false;
}

}  // namespace kp::capture
