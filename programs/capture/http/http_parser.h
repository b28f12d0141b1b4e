// kp-capture: an incremental reader for the HTTP/1.x messages of one direction.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "http/chunk_reader.h"
#include "tcp/piece.h"

namespace kp::capture {

/// The sort of message that a direction carries.
enum class MessageKind { kUnknown, kRequest, kResponse };

/// What is kept of a start line and its header fields.
///
/// Repeated fields that form lists (Content-Length, Transfer-Encoding) are joined with a comma; of
/// the others the first one counts.
struct MessageHead {
    MessageKind kind = MessageKind::kUnknown;
    Arrival arrival;        ///< of the first byte of the start line
    std::uint32_t end = 0;  ///< the sequence number behind the head
    std::string method;     ///< requests
    std::string target;     ///< requests
    int status = 0;         ///< answers: 100 to 999
    std::string host;
    std::string referer;
    std::string contentType;
    std::string contentLength;
    std::string transferEncoding;
};

/// How the body of a message is found.
enum class BodyRule {
    kAsHeadersSay,  ///< by Transfer-Encoding, Content-Length or the end of the direction
    kNone,          ///< there is none, whatever the fields say
    kStop,          ///< what follows is not HTTP any more; end() is not called for this message
};

/// Is told what a parser finds. It must not destroy the parser, and may call its stop().
class MessageHandler {
public:
    virtual ~MessageHandler() = default;

    /// A direction of unknown kind has shown its first start line.
    virtual void kindFound(MessageKind kind) = 0;

    /// The direction was to be read from its first byte, and does not begin with a start line.
    virtual void notHttp() = 0;

    /// A header block has ended. The handler may move the texts out of @p head.
    virtual BodyRule head(MessageHead& head) = 0;

    /// The message whose head was told last has ended, or its direction has; @p bodyBytes is what
    /// was seen of its body.
    virtual void end(MessageKind kind, std::uint64_t bodyBytes) = 0;
};

/// Reads messages out of bytes that come in pieces of any size, cut anywhere.
///
/// The result never depends on the cuts. Accepted are any token as method, header names in any
/// case, bare line feeds, folded fields, blank lines before a start line, chunk extensions and
/// trailers. What is no start line is skipped: a request is searched for at the beginning of every
/// line, an answer anywhere ("HTTP/1.1 200"), so a direction that was joined in its middle is found
/// again.
/// Memory: at most kHeadLimit bytes of an unfinished line and as much of kept fields; bodies are
/// counted, never stored.
class HttpParser {
public:
    /// The longest header block, start line and line ends included. A message beyond it ends the
    /// reading.
    static constexpr std::size_t kHeadLimit = 65536;

    /// @p handler must outlive the parser. With @p fromStart the first bytes must be a start line,
    /// as long as the kind is unknown.
    HttpParser(MessageHandler& handler, bool fromStart);

    /// Fixes the kind of an unknown direction, because the other one has shown its own.
    void expect(MessageKind kind);

    /// Reads the next bytes, a stream of Pieces, from its cursor on.
    void data(KP_BufferStream& stream);

    /// So many bytes of the direction were lost between those before and those that come next. What
    /// they were is known within a body of known length, or within one chunk; a header block that
    /// misses some is dropped, and the reading goes on at what looks like the next message. Returns
    /// whether messages may have been lost.
    bool missing(std::uint64_t count);

    /// The sequence number behind what was read or is missing; none before the first byte.
    std::optional<std::uint32_t> position() const {
        return hasRead_ ? std::optional(nowEnd_ - static_cast<std::uint32_t>(unread_.size()))
                        : std::nullopt;
    }

    /// The same before the head that is being read, if one is.
    std::optional<std::uint32_t> headPosition() const;

    /// The direction has ended: ends the message whose body is being read. May be repeated.
    void finish();

    /// Reads nothing more and tells nothing more.
    void stop() { state_ = State::kStopped; }
    /// Bytes of memory beside the object itself, about.
    std::size_t memory() const { return memory_; }
    bool stopped() const { return state_ == State::kStopped; }

private:
    enum class State {
        kSeek,       // between messages, or searching for one
        kStartLine,  // inside what may be a start line
        kSkipLine,   // inside a line that is none
        kHeader,
        kBody,  // remaining_ bytes to come
        kChunked,
        kUntilClose,  // everything to come
        kStopped,
    };

    enum class Line { kPart, kWhole, kTooLong };

    void read(std::string_view bytes, const Arrival& arrival);
    Arrival arrivalBefore(std::size_t count) const;
    // Each of these takes bytes from the front of its argument, or changes the state.
    void seek(std::string_view& bytes);
    void startLine(std::string_view& bytes);
    void skipLine(std::string_view& bytes);
    void header(std::string_view& bytes);
    void body(std::string_view& bytes);
    void chunked(std::string_view& bytes);

    Line takeLine(std::string_view& bytes, std::string_view& line);
    bool readStartLine(std::string_view line);
    void notAStartLine(State next);
    void readField(std::string_view line);
    void headEnded();
    void messageEnded(State next);
    void measure();
    bool isInBody() const {
        return state_ == State::kBody || state_ == State::kChunked || state_ == State::kUntilClose;
    }

    MessageHandler& handler_;
    MessageKind kind_ = MessageKind::kUnknown;
    State state_ = State::kSeek;
    bool fromStart_;
    bool lineHandedOut_ = false;   // line_ is to be emptied before it is used again
    std::size_t used_ = 0;         // of kHeadLimit, by whole lines
    std::uint64_t remaining_ = 0;  // of a body
    ChunkReader chunks_;
    std::uint64_t bodyBytes_ = 0;
    Arrival now_;               // of the bytes that are being read
    std::uint32_t nowEnd_ = 0;  // the sequence number behind them
    std::string_view unread_;   // the rest of them
    bool hasRead_ = false;
    std::size_t memory_ = 0;
    std::string line_;  // the part of a line, or of a status line searched for, that came earlier
    MessageHead head_;
    std::string* field_ = nullptr;  // of head_: where a folded line continues
};

}  // namespace kp::capture
