// kp-capture: the administration front end, served over TCP.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "control/live_config.h"
#include "control/login_limiter.h"
#include "control/refusal_log.h"
#include "kp/kp.h"

namespace kp::capture {

using Status = std::vector<std::pair<std::string, std::string>>;

/// Accepts clients and serves each on a thread of its own.
///
/// A client whose address the configured networks do not contain is dropped without a word. It then
/// sends two lines, user and password, and gets a UInt8: 1, or 0 and the end of the connection. When
/// the password is looked at, LoginLimiter decides; an attempt that it has kept waiting for
/// kLongestWait ends without an answer.
///
/// Command lines after that:
///   GET_CONFIG   UInt8 1 and the configuration
///   SET_CONFIG   followed by the configuration: UInt8 1 when it was taken, saved and is in force,
///                else 0, nothing has changed, and the line "refusal" of the status says why
///   GET_STATUS   UInt8 1, a UInt16 count, and so many lines name=value
///   QUIT         ends the connection
/// Anything else is answered with UInt8 0.
///
/// A client may take kLoginLimit for its login, and @p clientLimit for a command and between two
/// commands; then it is dropped. Clients that have not logged in give way to newer ones: kMostGuests
/// of them may be there at once, and apart from these kMostKnownGuests from addresses that somebody
/// has logged in from before, and from 127.0.0.1. The address that has most of them gives way, with
/// its oldest. So whoever fills the places of guests, from few addresses or from many, fills
/// neither those of the others nor those of clients that have logged in.
class FrontEnd : public KP_Thread {
public:
    static constexpr std::size_t kMostGuests = 96;
    static constexpr std::size_t kMostKnownGuests = 32;
    static constexpr std::size_t kMostLoggedIn = 128;
    static constexpr std::size_t kMostOfOneAddress = 64;
    static constexpr std::chrono::seconds kLoginLimit{5};
    static constexpr std::chrono::seconds kLongestWait{5};

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

    bool accept();
    bool isRefused(std::uint32_t address);
    void makeRoom(std::uint32_t address, bool isKnown);
    void lookAfterSessions(bool isEnd);
    /// Waits until the session's password may be looked at; false: never.
    bool waitForTurn(const Session& session);
    /// False when so many have logged in already.
    bool enter(std::uint32_t address);
    void leave();
    void refused(std::uint32_t address);
    void tellRefusals(bool isEnd);
    /// Waits, or until the front end ends.
    void pause(std::chrono::milliseconds time);

    const int listener_;
    LiveConfig& config_;
    const std::function<Status()> status_;
    const std::chrono::seconds clientLimit_;
    std::list<Session*> sessions_;  // of the accepting thread alone
    std::atomic<std::size_t> clientCount_{0};
    std::atomic<std::uint64_t> refusals_{0};
    std::mutex mutex_;  // guards the rest
    std::condition_variable changed_;
    bool isEnding_ = false;
    std::size_t loggedIn_ = 0;
    LoginLimiter limiter_;
    RefusalLog refusalLog_;
};

}  // namespace kp::capture
