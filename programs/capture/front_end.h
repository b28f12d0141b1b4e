// kp-capture: the administration front end, served over TCP.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "kp/kp.h"
#include "live_config.h"

namespace kp::capture {

using Status = std::vector<std::pair<std::string, std::string>>;

/// Accepts clients and serves each on a thread of its own.
///
/// A client whose address the configured networks do not contain is dropped without a word. It then
/// sends two lines, user and password, and gets a UInt8: 1, or 0 and the end of the connection. A
/// refusal is delayed, the longer the more often the address has failed, up to kMostDelay.
///
/// Command lines after that:
///   GET_CONFIG   UInt8 1 and the configuration
///   SET_CONFIG   followed by the configuration: UInt8 1 when it was taken, saved and is in force,
///                else 0, nothing has changed, and the line "refusal" of the status says why
///   GET_STATUS   UInt8 1, a UInt16 count, and so many lines name=value
///   QUIT         ends the connection
/// Anything else is answered with UInt8 0.
///
/// A client may take @p clientLimit for its login, for a command and between two commands; then it
/// is dropped. Nobody waits for anybody: more than kMostClients at once, or kMostOfOneAddress from
/// one address, are dropped at once.
class FrontEnd : public KP_Thread {
public:
    static constexpr std::size_t kMostClients = 256;
    static constexpr std::size_t kMostOfOneAddress = 64;
    static constexpr std::chrono::milliseconds kMostDelay{8000};

    /// Listens on @p port of all addresses. Throws std::runtime_error when it cannot.
    FrontEnd(std::uint16_t port, LiveConfig& config, std::function<Status()> status,
             std::chrono::seconds clientLimit);
    ~FrontEnd() override;

    /// Ends accepting and every session; whatever they use may go afterwards. Not for the front
    /// end's own threads.
    void end();

    /// One turn of accepting, and of looking after clients that take too long.
    int doTask() override;

    std::size_t clients() const { return clientCount_; }
    std::uint64_t refused() const { return refusals_; }

private:
    class Session;

    void accept();
    void lookAfterSessions(bool isEnd);
    std::chrono::milliseconds failed(std::uint32_t address);
    void succeeded(std::uint32_t address);
    /// False when the front end ends meanwhile.
    bool pause(std::chrono::milliseconds time);

    struct Failures {
        int count = 0;
        std::chrono::steady_clock::time_point last;
    };

    const int listener_;
    LiveConfig& config_;
    const std::function<Status()> status_;
    const std::chrono::seconds clientLimit_;
    std::list<Session*> sessions_;  // of the accepting thread alone
    std::atomic<std::size_t> clientCount_{0};
    std::atomic<std::uint64_t> refusals_{0};
    std::mutex mutex_;  // guards the rest
    std::condition_variable ended_;
    bool isEnding_ = false;
    std::map<std::uint32_t, Failures> failures_;
};

}  // namespace kp::capture
