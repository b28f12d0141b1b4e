// kp-capture: the HTTP/1.x side of one connection, requests paired with their answers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>

#include "connection_sink.h"
#include "http_parser.h"
#include "transaction.h"

namespace kp::capture {

/// Reads both directions of a connection and hands out its transactions.
///
/// Which end is the client is found by the bytes: the one that sends a request line, or the one
/// that does not send a status line, whichever comes first. A connection that begins otherwise is
/// not HTTP and is left alone.
/// Pairing: answers belong to the requests in their order. Where bytes were lost, acknowledgements
/// tell which: an answer that begins before what the client had when it sent a request is not that
/// request's, and one that begins just there is, whatever requests still wait before it. Interim
/// answers (1xx) are stepped over; an answer that no request waits for makes no transaction. After
/// the answer 101, and after a 2xx to CONNECT, the connection is not read any more, and what looked
/// like requests behind it was not.
/// A request counts from the end of its header block on, an answer too. Requests without an answer
/// are handed out when the connection closes, or earlier when more than kMostWaiting requests
/// wait, or their texts exceed kMostWaitingText bytes: the oldest go first, and their answers are
/// stepped over.
class HttpConnection : public ConnectionSink, private MessageHandler {
public:
    static constexpr std::size_t kMostWaiting = 1024;
    static constexpr std::size_t kMostWaitingText = 1048576;

    /// @p sink must outlive the connection. @p fromStart: the first bytes of both directions will
    /// be seen. @p number is kept in the transactions.
    HttpConnection(Endpoint first, Endpoint second, bool fromStart, TransactionSink& sink,
                   std::uint64_t number = 0);

    bool data(Side side, KP_BufferStream& bytes) override;
    void missing(Side side, std::uint64_t count) override;
    std::size_t memory() const override;
    void ended(Side side) override;
    void closed() override;

private:
    /// Requests in the order sent. Made when the first one comes: most connections of a network
    /// carry no HTTP that can be read.
    struct Request {
        Transaction transaction;
        Arrival arrival;
    };
    using Waiting = std::deque<Request>;

    void kindFound(MessageKind kind) override;
    void notHttp() override;
    BodyRule head(MessageHead& head) override;
    void end(MessageKind kind, std::uint64_t bodyBytes) override;

    HttpParser& parser(Side side) { return side == Side::kFirst ? first_ : second_; }
    void request(MessageHead& head);
    BodyRule answer(MessageHead& head);
    void giveUpOldest();
    bool isAnswerOfFront(const Arrival& answer);
    void leaveHttp();

    TransactionSink& sink_;
    std::uint64_t number_;
    Endpoint firstEnd_;
    Endpoint secondEnd_;
    HttpParser first_;
    HttpParser second_;
    Side reading_ = Side::kFirst;  // whose bytes are being read
    Side client_ = Side::kFirst;   // valid once a kind was found
    bool isHttp_ = false;
    bool isNotHttp_ = false;
    bool mayHaveLostAnswers_ = false;
    bool answering_ = false;  // the front of waiting_ is getting its answer
    std::unique_ptr<Waiting> waiting_;
    std::size_t waitingText_ = 0;  // bytes of all texts in waiting_
    std::uint64_t givenUp_ = 0;    // requests handed out early, whose answers may still come
};

}  // namespace kp::capture
