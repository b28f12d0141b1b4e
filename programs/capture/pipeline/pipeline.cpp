#include "pipeline/pipeline.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <limits>
#include <tuple>
#include <utility>

#include "http/http_connection.h"

namespace kp::capture {

namespace {

constexpr std::size_t kRounds = 4;  // that may wait for a stage
constexpr std::chrono::milliseconds kTurn{100};

}  // namespace

void Batch::add(const Segment& segment) {
    if (!bytes)
        bytes = std::make_unique<char[]>(kMostBytes);
    segments.push_back(segment);
    if (!segment.payload.empty())
        std::memcpy(bytes.get() + used, segment.payload.data(), segment.payload.size());
    segments.back().payload = std::string_view(bytes.get() + used, segment.payload.size());
    used += segment.payload.size();
}

void Batch::clear() {
    segments.clear();
    used = 0;
    expiries.clear();
    isLast = false;
}

void Faults::add(const std::string& text) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (first_.empty())
        first_ = text;
    any_ = true;
}

std::string Faults::first() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return first_;
}

// Of the batches that there are, kRounds may wait, one is worked off, and each reader fills one.
Parser::Parser(std::size_t place, std::size_t memoryLimit, bool answersAlone, std::size_t readers,
               RowQueue& output, Faults& faults)
    : input_(kRounds),
      emptied_(kRounds + 1 + readers),
      output_(output),
      faults_(faults),
      answersAlone_(answersAlone),
      follower_(*this, memoryLimit) {
    made_.parser = place;
}

Parser::~Parser() {
    stop();
    join(nullptr, 0);
}

std::unique_ptr<ConnectionSink> Parser::opened(Endpoint first, Endpoint second, bool fromStart,
                                               std::uint64_t number) {
    TransactionSink& sink = *this;
    return std::make_unique<HttpConnection>(first, second, fromStart, sink, number, answersAlone_);
}

void Parser::transaction(Transaction&& transaction) {
    made_.rows.push_back({number_, isClosing_, std::move(transaction)});
}

void Parser::work(Batch& batch) {
    auto expiry = batch.expiries.begin();
    for (std::size_t place = 0; place < batch.segments.size(); ++place) {
        for (; expiry != batch.expiries.end() && expiry->place == place; ++expiry)
            expire(*expiry);
        Segment& segment = batch.segments[place];
        segment.clock = clock_ = std::max(clock_, segment.clock);
        number_ = segment.number;
        follower_.segment(segment);
    }
    for (; expiry != batch.expiries.end(); ++expiry)
        expire(*expiry);
    if (!batch.isLast)
        return;
    isClosing_ = true;
    number_ = batch.lastNumber;
    follower_.finish();
    isClosing_ = false;
}

void Parser::expire(const Batch::Expiry& expiry) {
    isClosing_ = true;
    number_ = expiry.number;
    follower_.expire(std::max(clock_, expiry.time));
    isClosing_ = false;
}

int Parser::doTask() {
    std::unique_ptr<Batch> batch;
    if (!input_.pop(batch, kTurn))
        return 0;
    try {
        work(*batch);
    } catch (const std::exception& error) {
        faults_.add(error.what());  // the round goes on, or nobody would ever be done
    } catch (const KP_NoMoreMemoryException&) {
        faults_.add("out of memory");
    }
    isClosing_ = false;
    made_.connections = follower_.connections();
    made_.open = follower_.open();
    made_.givenUp = follower_.givenUp();
    made_.missing = follower_.missingBytes();
    made_.notHttp = notHttp_;
    made_.isLast = batch->isLast;
    if (batch->isLast)
        setContinue(0);
    batch->clear();
    emptied_.push(std::move(batch));
    RowBatch made;
    made.parser = made_.parser;
    std::swap(made, made_);
    output_.push(std::move(made));
    return 0;
}

Dispatcher::Dispatcher(const std::vector<Parser*>& parsers, std::mutex& sending)
    : parsers_(parsers), sending_(sending), batches_(parsers.size()) {
    for (std::unique_ptr<Batch>& batch : batches_)
        batch = std::make_unique<Batch>();
}

// A damaged time, or several captures in one file, must neither end what goes on nor keep what has
// ended: the clock does not go back, and jumps only where two segments in a row say so.
void Dispatcher::setClock(Timestamp time) {
    constexpr CaptureTime kJump = 3600 * kOneSecond;
    const CaptureTime now = time.seconds * kOneSecond + time.microseconds;
    if (number_ == 1)
        clock_ = lookedAt_ = now;
    const bool isFar = now > clock_ + kJump;
    if (!isFar || (jump_ != 0 && now > jump_ - kJump && now < jump_ + kJump))
        clock_ = std::max(clock_, now);
    jump_ = isFar ? now : 0;
}

void Dispatcher::segment(const Segment& segment) {
    if (segment.payload.size() > Batch::kMostBytes)
        return;  // no source gives one
    ++number_;
    setClock(segment.time);
    if (clock_ - lookedAt_ >= kExpiryPeriod) {
        lookedAt_ = clock_;
        expire();
    }
    const std::uint64_t hash = connectionHash(segment.source, segment.destination);
    const std::size_t place = hash % parsers_.size();
    if (!batches_[place]->hasRoomFor(segment))
        send(false);
    batches_[place]->add(segment);
    batches_[place]->segments.back().number = number_;
    batches_[place]->segments.back().clock = clock_;
    hasCollected_ = true;
}

void Dispatcher::expire() {
    for (const std::unique_ptr<Batch>& batch : batches_)
        batch->expiries.push_back({batch->segments.size(), number_ - 1, clock_});
}

// The batch of a parser to fill: one that it has worked off, or a new one at the beginning.
std::unique_ptr<Batch> Dispatcher::emptyBatch(std::size_t parser) {
    std::unique_ptr<Batch> batch;
    if (!parsers_[parser]->emptied().pop(batch, std::chrono::milliseconds(0)))
        batch = std::make_unique<Batch>();
    return batch;
}

void Dispatcher::send(bool isLast) {
    const std::lock_guard<std::mutex> lock(sending_);
    for (std::size_t i = 0; i < parsers_.size(); ++i) {
        Batch& batch = *batches_[i];
        batch.lastNumber = number_;
        batch.isLast = isLast;
        parsers_[i]->input().push(std::move(batches_[i]));
        batches_[i] = emptyBatch(i);
    }
    hasCollected_ = false;
}

Output::Output(std::size_t parsers, RowFunction row, IdleFunction idle, Faults& faults)
    : input_(kRounds * parsers),
      row_(std::move(row)),
      idle_(std::move(idle)),
      faults_(faults),
      waiting_(parsers) {}

Output::~Output() {
    stop();
    join(nullptr, 0);
}

bool Output::isRoundComplete() const {
    return std::all_of(waiting_.begin(), waiting_.end(),
                       [](const std::deque<RowBatch>& batches) { return !batches.empty(); });
}

void Output::writeRound() {
    std::vector<RowBatch> parts;
    for (std::deque<RowBatch>& parser : waiting_) {
        parts.push_back(std::move(parser.front()));
        parser.pop_front();
    }
    std::vector<Row*> round;
    std::uint64_t connections = 0;
    std::size_t open = 0;
    std::uint64_t givenUp = 0;
    std::uint64_t missing = 0;
    std::uint64_t notHttp = 0;
    for (RowBatch& part : parts) {
        for (Row& row : part.rows)
            round.push_back(&row);
        connections += part.connections;
        open += part.open;
        givenUp += part.givenUp;
        missing += part.missing;
        notHttp += part.notHttp;
        sawLast_ = part.isLast;
    }
    // A connection is one parser's, and its own rows stand in their order already.
    std::stable_sort(round.begin(), round.end(), [](const Row* a, const Row* b) {
        const auto place = [](const Row* row) {
            return std::tuple(row->number, row->isClosing,
                              row->isClosing ? row->transaction.connection : 0);
        };
        return place(a) < place(b);
    });
    for (Row* row : round)
        row_(std::move(row->transaction));
    connections_ = connections;
    open_ = open;
    givenUp_ = givenUp;
    missing_ = missing;
    notHttp_ = notHttp;
    if (sawLast_)
        idle_(true);
}

void Output::finish() {
    setContinue(0);
    const std::lock_guard<std::mutex> lock(mutex_);
    isFinished_ = true;
    finished_.notify_all();
}

int Output::doTask() {
    RowBatch part;
    try {
        if (input_.pop(part, kTurn)) {
            waiting_[part.parser].push_back(std::move(part));
            if (isRoundComplete())
                writeRound();
        }
        if (input_.isEmpty())
            idle_(false);
    } catch (const std::exception& error) {
        faults_.add(error.what());
    } catch (const KP_NoMoreMemoryException&) {
        faults_.add("out of memory");
    }
    if (sawLast_)
        finish();
    return 0;
}

void Output::waitUntilFinished() {
    std::unique_lock<std::mutex> lock(mutex_);
    finished_.wait(lock, [this] { return isFinished_.load(); });
}

}  // namespace kp::capture
