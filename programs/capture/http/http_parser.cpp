#include "http/http_parser.h"

#include <algorithm>

#include "http/http_fields.h"
#include "tcp/piece.h"

namespace kp::capture {

namespace {

void clear(MessageHead& head) {
    head.status = 0;
    for (std::string* text : {&head.method, &head.target, &head.host, &head.referer,
                              &head.contentType, &head.contentLength, &head.transferEncoding}) {
        text->clear();
    }
}

}  // namespace

HttpParser::HttpParser(MessageHandler& handler, bool fromStart)
    : handler_(handler), fromStart_(fromStart) {}

void HttpParser::expect(MessageKind kind) {
    if (kind_ != MessageKind::kUnknown)
        return;
    kind_ = kind;
    if (kind != MessageKind::kResponse || stopped())
        return;
    // Answers are searched in another way than the lines that were read so far.
    std::string begun;
    if (state_ == State::kStartLine)
        begun.swap(line_);
    state_ = State::kSeek;
    const Arrival arrival = head_.arrival;
    read(begun, arrival);
}

void HttpParser::data(KP_BufferStream& stream) {
    bool more = !stream.run().empty() || stream.nextRun();
    for (; more && !stopped(); more = stream.nextRun())
        read(stream.run(), Piece::at(stream).arrival());
}

// The arrival of the byte that stands so far before those that are not read yet.
Arrival HttpParser::arrivalBefore(std::size_t count) const {
    Arrival arrival = now_;
    arrival.sequence = nowEnd_ - static_cast<std::uint32_t>(unread_.size() + count);
    return arrival;
}

void HttpParser::read(std::string_view bytes, const Arrival& arrival) {
    now_ = arrival;
    nowEnd_ = arrival.sequence + static_cast<std::uint32_t>(bytes.size());
    hasRead_ = true;
    unread_ = bytes;
    const bool wasInBody = isInBody();
    const std::uint32_t head = head_.end;
    while (!unread_.empty()) {
        switch (state_) {
            case State::kSeek:
                seek(unread_);
                break;
            case State::kStartLine:
                startLine(unread_);
                break;
            case State::kSkipLine:
                skipLine(unread_);
                break;
            case State::kHeader:
                header(unread_);
                break;
            case State::kBody:
                body(unread_);
                break;
            case State::kChunked:
                chunked(unread_);
                break;
            case State::kUntilClose:
                bodyBytes_ += unread_.size();
                unread_ = {};
                break;
            case State::kStopped:
                unread_ = {};
                break;
        }
    }
    // Within one body nothing is kept.
    if (!wasInBody || !isInBody() || head != head_.end)
        measure();
}

bool HttpParser::missing(std::uint64_t count) {
    nowEnd_ += static_cast<std::uint32_t>(count);
    switch (state_) {
        case State::kBody:
            if (count > remaining_)
                break;
            remaining_ -= count;
            if (remaining_ == 0)
                messageEnded(State::kSeek);
            return false;
        case State::kChunked:
            if (chunks_.skip(count))
                return false;
            break;
        case State::kUntilClose:
        case State::kStopped:
            return false;
        default:
            break;
    }
    // A message may begin with the next packet; what is no start line is skipped.
    line_.clear();
    lineHandedOut_ = false;
    fromStart_ = false;
    if (state_ == State::kBody || state_ == State::kChunked) {
        messageEnded(State::kSeek);
    } else {
        state_ = State::kSeek;
    }
    return true;
}

std::optional<std::uint32_t> HttpParser::headPosition() const {
    if (state_ == State::kStartLine || state_ == State::kHeader)
        return head_.arrival.sequence;
    const auto now = position();
    if (state_ == State::kSeek && !lineHandedOut_ && now)
        return *now - static_cast<std::uint32_t>(line_.size());
    return now;
}

void HttpParser::finish() {
    switch (state_) {
        case State::kBody:
        case State::kChunked:
        case State::kUntilClose:
            messageEnded(State::kStopped);
            break;
        default:
            stop();
    }
}

void HttpParser::measure() {
    memory_ = line_.capacity();
    for (const std::string* text :
         {&head_.method, &head_.target, &head_.host, &head_.referer, &head_.contentType,
          &head_.contentLength, &head_.transferEncoding}) {
        memory_ += text->capacity();
    }
}

void HttpParser::seek(std::string_view& bytes) {
    if (lineHandedOut_)
        line_.clear();
    lineHandedOut_ = false;
    used_ = 0;
    if (kind_ != MessageKind::kResponse) {
        head_.arrival = arrivalBefore(0);
        state_ = State::kStartLine;
        return;
    }
    // 'H' occurs at the front of a status line only, so a mismatch can only begin a new one.
    std::size_t taken = 0;
    while (taken < bytes.size() && state_ == State::kSeek) {
        const char c = bytes[taken++];
        const bool isFront = c == 'H' || c == 'h';
        if (!line_.empty()) {
            line_ += c;
            if (parseStatusLine(line_)) {
                head_.arrival = arrivalBefore(line_.size());
                head_.arrival.sequence += static_cast<std::uint32_t>(taken);
                state_ = State::kStartLine;
            } else if (canBeginStatusLine(line_)) {
                continue;
            } else {
                line_.clear();
            }
        }
        if (isFront && line_.empty())
            line_ += c;
    }
    bytes.remove_prefix(taken);
}

HttpParser::Line HttpParser::takeLine(std::string_view& bytes, std::string_view& line) {
    if (lineHandedOut_)
        line_.clear();
    lineHandedOut_ = false;
    const std::size_t end = bytes.find('\n');
    const std::size_t size = end == std::string_view::npos ? bytes.size() : end + 1;
    if (used_ + line_.size() + size > kHeadLimit)
        return Line::kTooLong;
    if (end == std::string_view::npos) {
        line_.append(bytes);
        bytes = {};
        return Line::kPart;
    }
    if (line_.empty()) {
        line = bytes.substr(0, size);  // the usual case: nothing is copied
    } else {
        line_.append(bytes, 0, size);
        line = line_;
        lineHandedOut_ = true;
    }
    used_ += line.size();
    bytes.remove_prefix(size);
    line.remove_suffix(1);
    if (!line.empty() && line.back() == '\r')
        line.remove_suffix(1);
    return Line::kWhole;
}

void HttpParser::startLine(std::string_view& bytes) {
    std::string_view line;
    switch (takeLine(bytes, line)) {
        case Line::kTooLong:
            notAStartLine(State::kSkipLine);
            return;
        case Line::kPart:
            if (!canBeginStartLine(line_))
                notAStartLine(State::kSkipLine);
            return;
        case Line::kWhole:
            break;
    }
    if (line.empty()) {
        state_ = State::kSeek;
    } else if (!readStartLine(line)) {
        notAStartLine(State::kSeek);
    }
}

bool HttpParser::readStartLine(std::string_view line) {
    MessageKind found = MessageKind::kUnknown;
    clear(head_);
    if (kind_ != MessageKind::kResponse) {
        if (const auto request = parseRequestLine(line)) {
            found = MessageKind::kRequest;
            head_.method = request->method;
            head_.target = request->target;
        }
    }
    if (kind_ != MessageKind::kRequest) {
        if (const auto status = parseStatusLine(line)) {
            found = MessageKind::kResponse;
            head_.status = *status;
        }
    }
    if (found == MessageKind::kUnknown)
        return false;
    head_.kind = found;
    field_ = nullptr;
    state_ = State::kHeader;
    if (kind_ == MessageKind::kUnknown) {
        kind_ = found;
        handler_.kindFound(found);
    }
    return true;
}

void HttpParser::notAStartLine(State next) {
    line_.clear();
    if (kind_ == MessageKind::kUnknown && fromStart_) {
        stop();
        handler_.notHttp();
    } else {
        state_ = next;
    }
}

void HttpParser::skipLine(std::string_view& bytes) {
    const std::size_t end = bytes.find('\n');
    if (end == std::string_view::npos) {
        bytes = {};
    } else {
        bytes.remove_prefix(end + 1);
        state_ = State::kSeek;
    }
}

void HttpParser::header(std::string_view& bytes) {
    std::string_view line;
    switch (takeLine(bytes, line)) {
        case Line::kTooLong:
            stop();
            return;
        case Line::kPart:
            return;
        case Line::kWhole:
            break;
    }
    if (line.empty()) {
        headEnded();
    } else {
        readField(line);
    }
}

void HttpParser::readField(std::string_view line) {
    if (line[0] == ' ' || line[0] == '\t') {
        if (field_ == nullptr)
            return;
        const std::string_view more = trim(line);
        if (!field_->empty() && !more.empty())
            *field_ += ' ';
        field_->append(more);
        return;
    }
    field_ = nullptr;
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos)
        return;
    const std::string_view name = trim(line.substr(0, colon));
    bool isList = false;
    if (equalNoCase(name, "host")) {
        field_ = &head_.host;
    } else if (equalNoCase(name, "referer")) {
        field_ = &head_.referer;
    } else if (equalNoCase(name, "content-type")) {
        field_ = &head_.contentType;
    } else if (equalNoCase(name, "content-length")) {
        field_ = &head_.contentLength;
        isList = true;
    } else if (equalNoCase(name, "transfer-encoding")) {
        field_ = &head_.transferEncoding;
        isList = true;
    } else {
        return;
    }
    if (!field_->empty()) {
        if (!isList) {
            field_ = nullptr;
            return;
        }
        *field_ += ',';
    }
    field_->append(trim(line.substr(colon + 1)));
}

void HttpParser::headEnded() {
    const BodyLength length = parseBodyLength(head_.transferEncoding, head_.contentLength);
    head_.end = arrivalBefore(0).sequence;
    const BodyRule rule = handler_.head(head_);
    bodyBytes_ = 0;
    if (stopped())
        return;
    if (rule == BodyRule::kStop) {
        stop();
        return;
    }
    if (rule == BodyRule::kNone) {
        messageEnded(State::kSeek);
        return;
    }
    const bool isRequest = kind_ == MessageKind::kRequest;
    switch (length.form) {
        case BodyLength::Form::kBytes:
            remaining_ = length.bytes;
            state_ = State::kBody;
            if (remaining_ == 0)
                messageEnded(State::kSeek);
            break;
        case BodyLength::Form::kChunked:
            chunks_.restart();
            state_ = State::kChunked;
            break;
        case BodyLength::Form::kAbsent:
            state_ = State::kUntilClose;
            if (isRequest)
                messageEnded(State::kSeek);
            break;
        case BodyLength::Form::kUnclear:
            // Nobody can tell where the next request begins; an answer lasts until the end.
            state_ = State::kUntilClose;
            if (isRequest)
                messageEnded(State::kStopped);
            break;
    }
}

void HttpParser::body(std::string_view& bytes) {
    const auto taken = static_cast<std::size_t>(std::min<std::uint64_t>(remaining_, bytes.size()));
    bytes.remove_prefix(taken);
    remaining_ -= taken;
    bodyBytes_ += taken;
    if (remaining_ == 0)
        messageEnded(State::kSeek);
}

void HttpParser::chunked(std::string_view& bytes) {
    switch (chunks_.read(bytes, bodyBytes_)) {
        case ChunkReader::Result::kMore:
            break;
        case ChunkReader::Result::kEnd:
            messageEnded(State::kSeek);
            break;
        case ChunkReader::Result::kFault:
            messageEnded(State::kStopped);
            break;
    }
}

void HttpParser::messageEnded(State next) {
    state_ = next;
    handler_.end(kind_, bodyBytes_);
}

}  // namespace kp::capture
