#include "engine.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <stdexcept>
#include <utility>

#include "front_end.h"
#include "installation.h"
#include "judgement.h"
#include "live_config.h"
#include "packet_source.h"
#include "pipeline.h"
#include "recorder.h"
#include "summary.h"
#include "transaction_printer.h"

namespace kp::capture {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kConnectionMemory = std::size_t{96} * 1024 * 1024;
constexpr std::size_t kLeastMemory = std::size_t{8} * 1024 * 1024;  // of one parser

std::atomic<bool> stopRequested{false};
std::atomic<PacketSource*> stoppable{nullptr};
static_assert(std::atomic<PacketSource*>::is_always_lock_free);

using Handler = void (*)(int);
Handler loggingHandler[NSIG];  // the engine manager's, which write to the log and return

extern "C" void onStopSignal(int number) {
    const int kept = errno;
    if (loggingHandler[number] != nullptr)
        loggingHandler[number](number);
    // Whoever asks twice does not want to wait for a reader of our lines that stands still.
    if (stopRequested.exchange(true))
        _exit(1);
    if (PacketSource* source = stoppable)
        source->stop();
    errno = kept;
}

void catchSignals() {
    for (const int number : {SIGINT, SIGTERM}) {
        struct sigaction before {};
        sigaction(number, nullptr, &before);
        const bool isFunction = (before.sa_flags & SA_SIGINFO) == 0 &&
                                before.sa_handler != SIG_DFL && before.sa_handler != SIG_IGN;
        loggingHandler[number] = isFunction ? before.sa_handler : nullptr;
        struct sigaction action {};
        action.sa_handler = onStopSignal;  // no SA_RESTART: a blocked read has to end
        sigemptyset(&action.sa_mask);
        sigaction(number, &action, nullptr);
    }
    signal(SIGPIPE, SIG_IGN);  // the printer tells of a reader that has gone
    signal(SIGXFSZ, SIG_IGN);  // and the recorder of a file that may not grow
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

/// Says that a new day has begun when the reset thread does.
class Day : public KP_Object {
public:
    explicit Day(std::function<void()> began) : began_(std::move(began)) {}
    int reset() override {
        began_();
        return 0;
    }

private:
    std::function<void()> began_;
};

class Engine : private KP_MessageHandler {
public:
    Engine(KP_EngineMgr& manager, const Options& options, int output)
        : manager_(manager),
          options_(options),
          config_(configurationOf(manager), [this] { send(kConfigurationChanged); }),
          printer_(output),
          rowsAreShown_(options.print && isatty(output) != 0),
          isShifted_(options.start.has_value()) {
        manager_.addHandler(this);
    }
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;
    // The stages use what stands here, so they go first.
    ~Engine() override {
        endStages();
        manager_.removeHandler(this);
    }

    int run();

private:
    int handleMessage(KP_Message* message) override;
    void send(const char* text);
    std::unique_ptr<PacketSource> openSource();
    void startStages();
    void endStages();
    void readSource(PacketSource& source);
    void shift(Timestamp& time);
    PacketSource::Result readPackets(PacketSource& source);
    void startRecording();
    void take(Transaction&& transaction);
    void tell(const std::string& text);
    void idle(bool isLast);
    Status status() const;
    void complain(const std::string& text);

    KP_EngineMgr& manager_;
    const Options& options_;
    LiveConfig config_;
    Summary summary_;
    TransactionPrinter printer_;
    const bool rowsAreShown_;  // on a terminal, where a progress display would disturb them
    Faults faults_;
    Day day_{[this] { send(kDayBegan); }};
    std::mutex sending_;            // messages are sent by one thread at a time
    std::vector<Parser*> parsers_;  // owned by the manager's list, as the next two are
    Output* output_ = nullptr;
    Recorder* recorder_ = nullptr;  // none when nothing is recorded
    FrontEnd* frontEnd_ = nullptr;
    SegmentReader segments_;
    std::unique_ptr<Dispatcher> dispatcher_;
    std::atomic<const char*> state_{"starting"};
    std::atomic<bool> isPaced_{false};
    std::atomic<bool> filterChanged_{false};
    const bool isShifted_;               // the packets get other times than they had
    std::optional<std::int64_t> shift_;  // by so many seconds
    bool isGood_ = true;
    bool isRunning_ = false;  // the stages are

    // Of the output's thread.
    std::shared_ptr<KP_ConfigAdmin> judging_ = config_.current();
    std::atomic<bool> judgingChanged_{false};
    Clock::time_point flushed_ = Clock::now();
};

int Engine::handleMessage(KP_Message* message) {
    const std::string text = message->getMessage();
    if (text == kConfigurationChanged) {
        filterChanged_ = true;
        judgingChanged_ = true;
    } else if (text == kDayBegan) {
        KP_Log::ret("kp-capture: a new day has begun");
        if (recorder_ != nullptr)
            recorder_->dayBegan();
    } else if (text == kShutdown) {
        if (PacketSource* source = stoppable)
            source->stop();
    }
    return 0;  // others want to know as well
}

void Engine::send(const char* text) {
    const std::lock_guard<std::mutex> lock(sending_);
    KP_Message message(text, nullptr);
    manager_.sendMessage(&message);
}

void Engine::tell(const std::string& text) {
    std::fprintf(stderr, "kp-capture: %s\n", text.c_str());
    KP_Log::ret("kp-capture: %s", text.c_str());
}

void Engine::complain(const std::string& text) {
    isGood_ = false;
    tell(text);
}

// Null when a signal came while the source was being opened.
std::unique_ptr<PacketSource> Engine::openSource() {
    const std::shared_ptr<KP_ConfigAdmin> config = config_.current();
    try {
        if (!options_.replay.empty())
            return PacketSource::openFile(options_.replay, config->filterProgram);
        const std::string device = options_.device.empty() ? config->device : options_.device;
        if (device.empty()) {
            throw PacketSourceError("no device is configured; give --device DEV, or --replay FILE");
        }
        return PacketSource::openDevice(device, config->filterProgram);
    } catch (const PacketSourceError&) {
        if (!stopRequested)
            throw;
        return nullptr;
    }
}

// Before there are other threads.
void Engine::startRecording() {
    Recorder::Settings settings;
    settings.directory = config_.current()->databaseDir;
    settings.mayWait = !options_.replay.empty();
    settings.daysToKeep = [this] { return config_.current()->daysOfDataToKeep; };
    settings.isStopped = [] { return stopRequested.load(); };
    settings.tell = [this](const std::string& text) { tell(text); };
    recorder_ = new Recorder(std::move(settings));
    if (recorder_ == nullptr)
        throw std::bad_alloc();
    manager_.append(recorder_);
    recorder_->open();
}

void Engine::startStages() {
    const auto add = [this](KP_Thread* stage) {
        if (stage == nullptr)
            throw std::bad_alloc();
        manager_.append(stage);
    };
    if (options_.isRecorded())
        startRecording();
    output_ = new Output(
        options_.threads, [this](Transaction&& transaction) { take(std::move(transaction)); },
        [this](bool isLast) { idle(isLast); }, faults_);
    add(output_);
    for (unsigned i = 0; i < options_.threads; ++i) {
        auto* parser = new Parser(i, std::max(kConnectionMemory / options_.threads, kLeastMemory),
                                  options_.answersAlone, output_->input(), faults_);
        add(parser);
        parsers_.push_back(parser);
    }
    auto* days = KP_ResetThread::create();
    add(days);
    days->KP_List<KP_Object>::append(&day_);
    if (options_.serve) {
        frontEnd_ = new FrontEnd(
            static_cast<std::uint16_t>(config_.current()->connectionPort), config_,
            [this] { return status(); }, std::chrono::seconds(options_.clientTimeout));
        add(frontEnd_);
    }
    dispatcher_ = std::make_unique<Dispatcher>(parsers_);
    isRunning_ = manager_.start() == 0;
    if (!isRunning_)
        throw std::runtime_error("cannot start the threads of the stages");
}

// Also after a fault in the middle; ending what has ended does nothing.
void Engine::endStages() {
    // Clients ask for the status of the stages, so they go first.
    if (frontEnd_ != nullptr)
        frontEnd_->end();
    frontEnd_ = nullptr;
    if (isRunning_ && !output_->isFinished()) {
        dispatcher_->finish();
        output_->waitUntilFinished();
    }
    if (isRunning_ && recorder_ != nullptr)
        recorder_->finish();
    isRunning_ = false;
    send(kShutdown);
    manager_.stop();
    manager_.join(nullptr, 0);
    manager_.clear();
    output_ = nullptr;
    recorder_ = nullptr;
    parsers_.clear();
}

void Engine::take(Transaction&& transaction) {
    if (judgingChanged_.exchange(false))
        judging_ = config_.current();
    const Judgement judgement = judge(*judging_, transaction);
    summary_.addTransaction(transaction, judgement);
    if (options_.print && (options_.all || judgement.inRanges))
        printer_.print(transaction, judgement);
    if (recorder_ != nullptr && judgement.inRanges)
        recorder_->record(std::move(transaction), judgement);
}

// Lines are written at least once a second, and before a wait.
void Engine::idle(bool isLast) {
    if (isLast || isPaced_ || Clock::now() - flushed_ >= std::chrono::seconds(1)) {
        printer_.flush();
        flushed_ = Clock::now();
    }
    summary_.setConnections(output_->connections());
}

Status Engine::status() const {
    Status result = summary_.status();
    result.insert(result.begin(), {"state", state_.load()});
    result.emplace_back("connections_kept", std::to_string(output_->openConnections()));
    result.emplace_back("connections_given_up", std::to_string(output_->givenUp()));
    result.emplace_back("bytes_missing", std::to_string(output_->missingBytes()));
    if (recorder_ != nullptr) {
        const std::string fault = recorder_->fault();
        result.emplace_back("recording", fault.empty() ? "yes" : "failing: " + fault);
        result.emplace_back("recorded", std::to_string(recorder_->recorded()));
        result.emplace_back("not_recorded", std::to_string(recorder_->lost()));
    } else {
        result.emplace_back("recording", "no");
    }
    result.emplace_back("clients", std::to_string(frontEnd_->clients()));
    result.emplace_back("clients_refused", std::to_string(frontEnd_->refused()));
    return result;
}

void Engine::shift(Timestamp& time) {
    if (!shift_)
        shift_ = *options_.start - time.seconds;
    time.seconds = std::max<std::int64_t>(time.seconds + *shift_, 0);
}

PacketSource::Result Engine::readPackets(PacketSource& source) {
    constexpr unsigned kRound = 1024;
    constexpr std::chrono::milliseconds kLongestRound{200};
    // Whoever waits for packets from outside looks at the clock each time, a file rarely.
    isPaced_ = source.progress() < 0;
    ProgressDisplay progress(!source.isLive() && !rowsAreShown_ && isatty(STDERR_FILENO) != 0);
    Clock::time_point ended = Clock::now();
    Packet packet;
    Segment segment;
    for (unsigned round = 1; !printer_.isFailed(); ++round) {
        if (isPaced_ && dispatcher_->hasCollected() && source.mayWait())
            dispatcher_->endRound();
        const PacketSource::Result result = source.next(packet);
        if (result == PacketSource::Result::kPacket) {
            summary_.addPacket(packet.bytes.size());
            if (isShifted_)
                shift(packet.time);
            if (segments_.read(packet.linkType, packet.bytes, packet.time, segment))
                dispatcher_->segment(segment);
        } else if (result != PacketSource::Result::kNothing) {
            return result;
        } else if (source.isLive() && dispatcher_->hasCollected()) {
            dispatcher_->endRound();
        }
        if (!isPaced_ && round % kRound != 0)
            continue;
        if (filterChanged_.exchange(false)) {
            const std::string fault = source.setFilter(config_.current()->filterProgram);
            if (!fault.empty())
                KP_Log::ret("kp-capture: the new filter is refused, the old one stays: %s",
                            fault.c_str());
        }
        summary_.setFilteredOut(source.filteredOut());
        summary_.setDropped(source.dropped());
        if (progress.isDue())
            progress.show(summary_.progressLine(source.progress()));
        if (isPaced_ && Clock::now() - ended >= kLongestRound) {
            dispatcher_->endRound();
            ended = Clock::now();
        }
    }
    return PacketSource::Result::kEnd;
}

void Engine::readSource(PacketSource& source) {
    const StoppedBySignals scope(source);
    if (!source.warning().empty())
        std::fprintf(stderr, "kp-capture: warning: %s\n", source.warning().c_str());
    state_ = source.isLive() ? "watching" : "reading";
    KP_Log::ret("kp-capture: %s %s", state_.load(), source.name().c_str());
    if (source.isLive()) {
        std::fprintf(stderr, "kp-capture: watching %s%s\n", source.name().c_str(),
                     options_.isRecorded() ? ", recording" : "");
    }
    const PacketSource::Result end = readPackets(source);
    summary_.setFilteredOut(source.filteredOut());
    summary_.setDropped(source.dropped());
    if (end == PacketSource::Result::kFault)
        complain(source.fault() + "; the packets before that are used");
}

int Engine::run() {
    catchSignals();
    const std::unique_ptr<PacketSource> source = openSource();
    if (source)
        config_.setLinkType(source->linkType());
    startStages();
    if (source)
        readSource(*source);
    dispatcher_->finish();
    output_->waitUntilFinished();
    summary_.setConnections(output_->connections());
    summary_.setLosses(output_->givenUp(), output_->missingBytes());
    if (recorder_ != nullptr) {
        recorder_->flush();
        summary_.setRecorded(recorder_->recorded(), recorder_->lost());
        if (recorder_->lost() != 0)
            complain(std::to_string(recorder_->lost()) + " transactions were not recorded");
    }
    if (faults_.any())
        complain(faults_.first());
    if (printer_.isFailed())
        complain("cannot write to standard output: " + printer_.failure());
    std::fputs(summary_.text().c_str(), stderr);
    state_ = "serving";
    while (options_.serve && !stopRequested)
        manager_.wait(nullptr, 100);
    endStages();
    KP_Log::ret("kp-capture: ended%s", isGood_ ? "" : " with an error");
    return isGood_ ? 0 : 1;
}

}  // namespace

int runEngine(KP_EngineMgr& manager, const Options& options, int output) {
    return Engine(manager, options, output).run();
}

}  // namespace kp::capture
