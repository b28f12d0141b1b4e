// kp-capture: watches web traffic on a device or in a capture file.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <exception>
#include <memory>

#include "http_connection.h"
#include "installation.h"
#include "judgement.h"
#include "kp/kp.h"
#include "options.h"
#include "packet_source.h"
#include "stream_follower.h"
#include "summary.h"
#include "transaction_printer.h"

namespace kp::capture {
namespace {

std::atomic<bool> stopRequested{false};
std::atomic<PacketSource*> stoppable{nullptr};
static_assert(std::atomic<PacketSource*>::is_always_lock_free);

extern "C" void onStopSignal(int) {
    const int kept = errno;
    stopRequested = true;
    if (PacketSource* source = stoppable)
        source->stop();
    errno = kept;
}

void catchSignals() {
    struct sigaction action {};
    action.sa_handler = onStopSignal;  // no SA_RESTART: a blocked read has to end
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);  // the printer tells of a reader that has gone
}

/// Lets the signals stop a source for as long as this lives.
class StoppedBySignals {
public:
    explicit StoppedBySignals(PacketSource& source) {
        stoppable = &source;
        if (stopRequested)
            source.stop();
    }
    StoppedBySignals(const StoppedBySignals&) = delete;
    StoppedBySignals& operator=(const StoppedBySignals&) = delete;
    ~StoppedBySignals() { stoppable = nullptr; }
};

/// Judges, counts and prints what the connections hand out.
class Recorder : public ConnectionListener, public TransactionSink {
public:
    Recorder(KP_ConfigAdmin& config, const Options& options, Summary& summary,
             TransactionPrinter& printer)
        : config_(config), options_(options), summary_(summary), printer_(printer) {}

    std::unique_ptr<ConnectionSink> opened(Endpoint first, Endpoint second,
                                           bool fromStart) override {
        return std::make_unique<HttpConnection>(first, second, fromStart, *this);
    }

    void transaction(const Transaction& transaction) override {
        const Judgement judgement = judge(config_, transaction);
        summary_.addTransaction(transaction, judgement);
        if (options_.print && (options_.all || judgement.inRanges)) {
            printer_.print(transaction, judgement);
        }
    }

private:
    KP_ConfigAdmin& config_;
    const Options& options_;
    Summary& summary_;
    TransactionPrinter& printer_;
};

// A standard stream that whoever started us has closed must not become the log or the capture: the
// place is taken by something that cannot be written.
void fillStandardStreams() {
    for (int descriptor = 0; descriptor <= STDERR_FILENO; ++descriptor) {
        if (fcntl(descriptor, F_GETFD) < 0)
            open("/dev/null", O_RDONLY);
    }
}

// Null when a signal came while the source was being opened.
std::unique_ptr<PacketSource> openSource(const Options& options, const KP_ConfigAdmin& config) {
    std::unique_ptr<PacketSource> source;
    try {
        if (!options.replay.empty()) {
            source = PacketSource::openFile(options.replay, config.filterProgram);
        } else {
            const std::string device = options.device.empty() ? config.device : options.device;
            if (device.empty()) {
                throw PacketSourceError(
                    "no device is configured; give --device DEV, or --replay FILE");
            }
            source = PacketSource::openDevice(device, config.filterProgram);
        }
    } catch (const PacketSourceError&) {
        if (!stopRequested)
            throw;
        return nullptr;
    }
    return source;
}

// Reads the source to its end. Lines are written at least once a second, and before a wait.
PacketSource::Result readPackets(PacketSource& source, StreamFollower& follower, Summary& summary,
                                 TransactionPrinter& printer, ProgressDisplay& progress) {
    using Clock = std::chrono::steady_clock;
    constexpr unsigned kRound = 1024;
    // Whoever waits for packets from outside looks at the clock each time, a file rarely.
    const bool isPaced = source.progress() < 0;
    Clock::time_point flushed = Clock::now();
    Packet packet;
    for (unsigned round = 1; !printer.isFailed(); ++round) {
        if (isPaced && printer.hasCollected() && source.mayWait())
            printer.flush();
        const PacketSource::Result result = source.next(packet);
        if (result == PacketSource::Result::kPacket) {
            summary.addPacket(packet.bytes.size());
            Segment segment;
            if (readSegment(packet.linkType, packet.bytes, segment)) {
                segment.time = packet.time;
                follower.segment(segment);
            }
        } else if (result != PacketSource::Result::kNothing) {
            return result;
        } else if (source.isLive()) {
            printer.flush();
        }
        if (!isPaced && round % kRound != 0)
            continue;
        if (progress.isDue())
            progress.show(summary.progressLine(source.progress()));
        if (Clock::now() - flushed >= std::chrono::seconds(1)) {
            printer.flush();
            flushed = Clock::now();
        }
    }
    return PacketSource::Result::kEnd;
}

int run(const Options& options) {
    fillStandardStreams();
    KP_ConfigAdmin config;
    startInstallation(options.directory, options.name, config);
    if (config.numOfIPRanges == 0 && !options.all) {
        std::fputs(
            "kp-capture: warning: no address ranges are configured, nothing is watched; "
            "--all takes everything\n",
            stderr);
    }

    catchSignals();
    Summary summary;
    TransactionPrinter printer(STDOUT_FILENO);
    Recorder recorder(config, options, summary, printer);
    StreamFollower follower(recorder);
    bool isGood = true;
    if (const std::unique_ptr<PacketSource> source = openSource(options, config)) {
        const StoppedBySignals scope(*source);
        if (!source->warning().empty()) {
            std::fprintf(stderr, "kp-capture: warning: %s\n", source->warning().c_str());
        }
        KP_Log::ret("kp-capture: %s %s", source->isLive() ? "watching" : "reading",
                    source->name().c_str());
        const bool rowsAreShown = options.print && isatty(STDOUT_FILENO) != 0;
        ProgressDisplay progress(!source->isLive() && !rowsAreShown && isatty(STDERR_FILENO) != 0);
        const PacketSource::Result end = readPackets(*source, follower, summary, printer, progress);
        progress.clear();
        summary.setFilteredOut(source->filteredOut());
        summary.setDropped(source->dropped());
        if (end == PacketSource::Result::kFault) {
            isGood = false;
            std::fprintf(stderr, "kp-capture: %s; what came before is used\n",
                         source->fault().c_str());
            KP_Log::ret("kp-capture: %s", source->fault().c_str());
        }
    }
    follower.finish();
    printer.flush();
    summary.setConnections(follower.connections());
    if (printer.isFailed()) {
        isGood = false;
        std::fprintf(stderr, "kp-capture: cannot write to standard output: %s\n",
                     printer.failure().c_str());
    }
    std::fputs(summary.text().c_str(), stderr);
    KP_Log::ret("kp-capture: ended%s", isGood ? "" : " with an error");
    KP_Log::reset();
    return isGood ? 0 : 1;
}

}  // namespace
}  // namespace kp::capture

int main(int argc, char** argv) {
    try {
        kp::capture::Options options;
        if (const auto status = kp::capture::readOptions(argc, argv, options))
            return *status;
        return kp::capture::run(options);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "kp-capture: %s\n", error.what());
        return 1;
    }
}
