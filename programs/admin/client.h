// kp-admin: a connection to an engine's front end.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "kp/kp.h"

namespace kp::admin {

/// The engine said no; what() is a sentence for the user.
class Refused : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// The engine cannot be reached, takes too long, or has gone.
class Unreachable : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Talks to the front end of one engine. Every operation throws Refused or Unreachable.
///
/// No operation takes longer than the limit, however slowly the engine sends.
class Client {
public:
    /// Connects; looking up the name of @p host takes as long as the system lets it.
    Client(const std::string& host, std::uint16_t port, std::chrono::seconds limit);
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    void logIn(const std::string& user, const std::string& password);
    /// Receives the engine's configuration.
    void readConfig(KP_Config& config);
    /// Has the engine take @p config; a refusal says why.
    void writeConfig(const KP_Config& config);
    /// The lines name=value of the engine's status.
    std::vector<std::string> status();
    /// Ends the session; an engine that has gone is no fault any more.
    void quit();

private:
    class Turn;

    void connect(std::uint32_t address, std::uint16_t port);
    void watch();
    [[noreturn]] void lost();
    void require(bool isGood) {
        if (!isGood)
            lost();
    }
    void sendLine(std::string line);
    bool answer();
    std::vector<std::string> readStatus();

    const std::string peer_;
    const std::chrono::seconds limit_;
    int socket_ = -1;

    bool isAccepted_ = false;

    // Ends whatever waits for the engine when the time is up.
    std::mutex mutex_;
    std::condition_variable changed_;
    std::chrono::steady_clock::time_point deadline_;
    bool isWaiting_ = false;
    bool isLate_ = false;
    bool isEnding_ = false;
    std::thread watcher_;
};

}  // namespace kp::admin
