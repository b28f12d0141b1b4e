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

#include "common/printable.h"
#include "control/confinement.h"
#include "control/front_end.h"
#include "control/installation.h"
#include "control/live_config.h"
#include "control/log_line.h"
#include "control/signals.h"
#include "output/judgement.h"
#include "output/losses.h"
#include "output/recorder.h"
#include "output/summary.h"
#include "output/transaction_printer.h"
#include "packet/unread.h"
#include "pipeline/pipeline.h"
#include "pipeline/reader.h"
#include "source/device_source.h"
#include "source/fanout_group.h"
#include "source/file_source.h"
#include "source/packet_source.h"

namespace kp::capture {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kConnectionMemory = std::size_t{96} * 1024 * 1024;
constexpr int kWithLosses = 3;                                      // exit status
constexpr std::size_t kLeastMemory = std::size_t{8} * 1024 * 1024;  // of one parser

std::atomic<bool> stopRequested{false};
using Sources = std::vector<std::unique_ptr<PacketSource>>;
std::atomic<const Sources*> stoppable{nullptr};
static_assert(std::atomic<const Sources*>::is_always_lock_free);

void stopSources() {
    if (const Sources* sources = stoppable) {
        for (const std::unique_ptr<PacketSource>& source : *sources)
            source->stop();
    }
}

using Handler = void (*)(int);
Handler loggingHandler[NSIG];  // the engine manager's, which write to the log and return

extern "C" void onStopSignal(int number) {
    const int kept = errno;
    if (loggingHandler[number] != nullptr)
        loggingHandler[number](number);
    // Whoever asks twice does not want to wait for a reader of our lines that stands still.
    if (stopRequested.exchange(true))
        _exit(1);
    stopSources();
    errno = kept;
}

void catchSignals() {
    for (const int number : {SIGINT, SIGTERM, SIGQUIT}) {
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
}

/// Lets the signals stop sources for as long as this lives.
class StoppedBySignals {
public:
    explicit StoppedBySignals(const Sources& sources) {
        stoppable = &sources;
        if (stopRequested)
            stopSources();
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
          rowsAreShown_(options.print && isatty(output) != 0) {
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
    void hungUp();
    void openSources();
    void openDevice(const KP_ConfigAdmin& config);
    void deviceChanged(bool isFirst, const std::string& text);
    void showDeviceState();
    void startStages();
    void endStages();
    void startReading();
    void readSources();
    void endReading();
    void startRecording();
    void take(Transaction&& transaction);
    void tell(const std::string& text);
    void idle(bool isLast);
    Lost lost() const;
    void tellLosses(bool isLast);
    Unread unread() const;
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
    Caretaker* caretaker_ = nullptr;
    std::unique_ptr<InterfaceDrops> interface_;  // of a device that is watched
    std::mutex telling_;                         // guards it and the next
    LossTeller losses_;
    FanoutGroup group_;
    Reader::Shared reading_{summary_.packets(),
                            parsers_,
                            {},
                            [this] { return std::string(config_.current()->filterProgram); },
                            logLine};
    Sources sources_;                               // several of one device, or one
    std::vector<std::unique_ptr<Reader>> readers_;  // one for each
    std::vector<ReaderThread*> readerThreads_;      // of all but the first; owned as the stages are
    std::unique_ptr<Dispatcher> dispatcher_;        // sends the last round
    std::mutex deviceChanging_;
    bool hasWatched_ = false;            // the device was there and up
    std::atomic<bool> wasBlind_{false};  // and then for a while it was not
    std::atomic<const char*> state_{"starting"};
    std::atomic<bool> isPaced_{false};
    std::atomic<std::uint64_t> left_{0};  // packets, at the end
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
        ++reading_.filterChanges;
        judgingChanged_ = true;
    } else if (text == kDayBegan) {
        logLine("a new day has begun");
        if (recorder_ != nullptr)
            recorder_->dayBegan();
    } else if (text == kShutdown) {
        stopSources();
    }
    return 0;  // others want to know as well
}

void Engine::send(const char* text) {
    const std::lock_guard<std::mutex> lock(sending_);
    KP_Message message(text, nullptr);
    manager_.sendMessage(&message);
}

// On the caretaker's thread.
void Engine::hungUp() {
    if (KP_Log::reopen() != 0)
        tell("the log cannot be opened anew, the old file is used: " +
             std::string(std::strerror(errno)));
    config_.reload();
}

void Engine::tell(const std::string& text) {
    std::fprintf(stderr, "kp-capture: %s\n", programs::printable(text).c_str());
    logLine(text);
}

void Engine::complain(const std::string& text) {
    isGood_ = false;
    tell(text);
}

// None when a signal came while they were being opened.
void Engine::openSources() {
    const std::shared_ptr<KP_ConfigAdmin> config = config_.current();
    try {
        if (options_.replay.empty()) {
            openDevice(*config);
        } else {
            sources_.push_back(FileSource::open(options_.replay, config->filterProgram));
        }
    } catch (const PacketSourceError&) {
        if (!stopRequested)
            throw;
        sources_.clear();
    }
}

void Engine::openDevice(const KP_ConfigAdmin& config) {
    DeviceSource::Settings settings;
    settings.name = options_.device.empty() ? config.device : options_.device;
    if (settings.name.empty())
        throw PacketSourceError("no device is configured; give --device DEV, or --replay FILE");
    interface_ = std::make_unique<InterfaceDrops>(settings.name);
    settings.filter = config.filterProgram;
    settings.buffer = static_cast<int>(options_.buffer * 1024 * 1024 / options_.readers);
    settings.mayWait = options_.wait;
    settings.group = options_.readers > 1 ? &group_ : nullptr;
    for (unsigned i = 0; i < options_.readers; ++i) {
        const bool isFirst = i == 0;
        settings.listener = [this, isFirst](const std::string& text) {
            deviceChanged(isFirst, text);
        };
        sources_.push_back(std::make_unique<DeviceSource>(settings));
    }
}

// On the thread of that reader. The readers of a device see the same, each for itself.
void Engine::deviceChanged(bool isFirst, const std::string& text) {
    const std::lock_guard<std::mutex> lock(deviceChanging_);
    showDeviceState();
    if (isFirst)
        tell(text);
}

void Engine::showDeviceState() {
    if (sources_.empty())
        return;
    const bool isBlind = std::any_of(sources_.begin(), sources_.end(),
                                     [](const auto& source) { return source->isBlind(); });
    if (isBlind && hasWatched_)
        wasBlind_ = true;
    hasWatched_ = hasWatched_ || !isBlind;
    state_ = isBlind ? "waiting for device" : "watching";
    if (!isBlind)
        config_.setLinkType(sources_.front()->linkType());
}

// Before there are other threads.
void Engine::startRecording() {
    Recorder::Settings settings;
    settings.directory = config_.current()->databaseDir;
    settings.mayWait = !options_.replay.empty();
    settings.daysToKeep = [this] { return config_.current()->daysOfDataToKeep; };
    settings.deletesBeforePauses = options_.deleteOld;
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
        auto* parser =
            new Parser(i, std::max(kConnectionMemory / options_.threads, kLeastMemory),
                       options_.answersAlone, options_.readers, output_->input(), faults_);
        add(parser);
        parsers_.push_back(parser);
    }
    caretaker_ = new Caretaker([this] { hungUp(); }, [this] { tellLosses(false); });
    add(caretaker_);
    auto* days = KP_ResetThread::create();
    add(days);
    days->KP_List<KP_Object>::append(&day_);
    if (options_.serve) {
        frontEnd_ = new FrontEnd(
            static_cast<std::uint16_t>(config_.current()->connectionPort), config_,
            [this] { return status(); }, std::chrono::seconds(options_.clientTimeout));
        add(frontEnd_);
    }
    dispatcher_ = std::make_unique<Dispatcher>(parsers_, reading_.sending);
    for (const std::unique_ptr<PacketSource>& source : sources_)
        readers_.push_back(std::make_unique<Reader>(*source, reading_, options_.start));
    const std::string installation = KP_Tools::getInstallDir();
    logLine(confine(options_.replay.empty(), {installation + "/admin", installation + "/logs",
                                              config_.current()->databaseDir}));
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
    if (caretaker_ != nullptr)
        caretaker_->end();
    caretaker_ = nullptr;
    endReading();
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

Lost Engine::lost() const {
    Lost lost = summary_.droppedPackets();
    lost.left = left_;
    lost.rows = recorder_ != nullptr ? recorder_->lost() : 0;
    return lost;
}

void Engine::tellLosses(bool isLast) {
    const std::lock_guard<std::mutex> lock(telling_);
    if (interface_) {
        const bool hasSeenTags =
            std::any_of(readers_.begin(), readers_.end(),
                        [](const auto& reader) { return reader->unread().hasSeenTags(); });
        summary_.setInterfaceDropped(interface_->count(hasSeenTags));
    }
    const std::string text = losses_.tell(lost(), Clock::now(), isLast);
    if (!text.empty())
        logLine(text);
}

Unread Engine::unread() const {
    Unread unread;
    for (const std::unique_ptr<Reader>& reader : readers_)
        reader->unread().addTo(unread);
    unread.notHttp = output_->notHttp();
    return unread;
}

Status Engine::status() const {
    Status result = summary_.status();
    result.insert(result.begin(), {"state", state_.load()});
    result.emplace_back("connections_kept", std::to_string(output_->openConnections()));
    result.emplace_back("connections_given_up", std::to_string(output_->givenUp()));
    result.emplace_back("bytes_missing", std::to_string(output_->missingBytes()));
    for (const auto& [name, count] : unread().named())
        result.emplace_back(name, std::to_string(count));
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
    if (const std::string reloaded = config_.reloaded(); !reloaded.empty())
        result.emplace_back("reloaded", reloaded);
    return result;
}

void Engine::startReading() {
    const PacketSource& source = *sources_.front();
    if (!source.warning().empty())
        std::fprintf(stderr, "kp-capture: warning: %s\n",
                     programs::printable(source.warning()).c_str());
    isPaced_ = source.progress() < 0;
    if (source.isLive()) {
        const std::lock_guard<std::mutex> lock(deviceChanging_);
        showDeviceState();
        std::fprintf(stderr, "kp-capture: %s %s%s\n", state_.load(),
                     programs::printable(source.name()).c_str(),
                     options_.isRecorded() ? ", recording" : "");
    } else {
        state_ = "reading";
    }
    logLine(std::string(state_) + " " + source.name());
    for (std::size_t i = 1; i < readers_.size(); ++i) {
        auto* thread = new ReaderThread(*readers_[i], stopSources, faults_);
        if (thread == nullptr)
            throw std::bad_alloc();
        manager_.append(thread);
        readerThreads_.push_back(thread);
        if (thread->start() != 0)
            throw std::runtime_error("cannot start the threads of the readers");
    }
}

void Engine::readSources() {
    const StoppedBySignals scope(sources_);
    startReading();
    Reader& reader = *readers_.front();
    const bool isLive = reader.source().isLive();
    ProgressDisplay progress(!isLive && !rowsAreShown_ && isatty(STDERR_FILENO) != 0);
    while (!printer_.isFailed() && reader.turn()) {
        if (progress.isDue())
            progress.show(summary_.progressLine(reader.source().progress()));
    }
    endReading();
    for (const std::unique_ptr<PacketSource>& source : sources_)
        left_ += source->left();
    for (const std::unique_ptr<Reader>& each : readers_) {
        if (each->end() == PacketSource::Result::kFault)
            complain(each->source().fault() + "; the packets before that are used");
    }
}

// The main thread's reader has ended, or will not be called any more.
void Engine::endReading() {
    for (const std::unique_ptr<PacketSource>& source : sources_)
        source->stop();
    for (ReaderThread* thread : readerThreads_)
        thread->join(nullptr, 0);
    readerThreads_.clear();
}

int Engine::run() {
    catchSignals();
    openSources();
    if (!sources_.empty())
        config_.setLinkType(sources_.front()->linkType());
    startStages();
    if (!sources_.empty())
        readSources();
    dispatcher_->finish();
    output_->waitUntilFinished();
    summary_.setConnections(output_->connections());
    summary_.setLosses(output_->givenUp(), output_->missingBytes());
    if (recorder_ != nullptr) {
        recorder_->flush();
        summary_.setRecorded(recorder_->recorded(), recorder_->lost());
    }
    summary_.setUnread(unread().text());
    tellLosses(true);
    const Lost lost = this->lost();
    if (lost.any())
        std::fprintf(stderr, "kp-capture: %s\n", LossTeller().tell(lost, {}).c_str());
    if (wasBlind_)
        std::fprintf(stderr, "kp-capture: the device was not there, or down, for a while\n");
    if (faults_.any())
        complain(faults_.first());
    if (printer_.isFailed())
        complain("cannot write to standard output: " + printer_.failure());
    std::fputs(summary_.text().c_str(), stderr);
    state_ = "serving";
    while (options_.serve && !stopRequested)
        manager_.wait(nullptr, 100);
    endStages();
    if (!isGood_) {
        logLine("ended with an error");
        return 1;
    }
    const bool hasLost = lost.any() || wasBlind_;
    logLine(hasLost ? "ended with losses" : "ended");
    return hasLost ? kWithLosses : 0;
}

}  // namespace

int runEngine(KP_EngineMgr& manager, const Options& options, int output) {
    return Engine(manager, options, output).run();
}

}  // namespace kp::capture
