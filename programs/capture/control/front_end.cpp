#include "control/front_end.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <map>
#include <stdexcept>

#include "common/printable.h"
#include "control/log_line.h"

namespace kp::capture {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kTurn = 200;               // milliseconds between two looks at the clients
constexpr int kMostAtOnce = 64;          // connections taken in a turn
constexpr int kMostUnread = 256;         // pieces that a client may still send when it is to go
constexpr std::size_t kLineSize = 1024;  // of a user, a password or a command, terminator included

int listenOn(std::uint16_t port) {
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int on = 1;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    if (listener < 0 || ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        ::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener, SOMAXCONN) != 0) {
        const std::string reason = std::strerror(errno);
        if (listener >= 0)
            ::close(listener);
        throw std::runtime_error("cannot serve on port " + std::to_string(port) + ": " + reason);
    }
    return listener;
}

std::string textOf(std::uint32_t address) {
    char text[16];
    KP_Tools::IPAddressString(address, text);
    return text;
}

}  // namespace

// One client. Its thread runs one iteration, the whole session.
class FrontEnd::Session : public KP_Thread {
public:
    Session(FrontEnd& owner, int socket, std::uint32_t address, bool isKnown)
        : owner_(owner), socket_(socket), address_(address), isKnown_(isKnown) {
        extend(std::min<std::chrono::seconds>(kLoginLimit, owner_.clientLimit_));
    }
    ~Session() override {
        stop();
        join(nullptr, 0);
        ::close(socket_);
    }

    int doTask() override {
        try {
            serve();
        } catch (const std::exception& error) {
            logLine(std::string("a client was dropped: ") + error.what());
        } catch (const KP_NoMoreMemoryException&) {
            logLine("a client was dropped: out of memory");
        }
        sayGoodbye();
        if (isLoggedIn_)
            owner_.leave();
        setContinue(0);
        isDone_ = true;
        return 0;
    }

    std::uint32_t address() const { return address_; }
    bool isDone() const { return isDone_; }
    bool isDropped() const { return isDropped_; }
    bool isLoggedIn() const { return isLoggedIn_; }
    // Neither logged in nor about to go.
    bool isGuest() const { return !isLoggedIn_ && !isDropped_ && !isDone_; }
    // Whether its address was, when it came.
    bool isKnown() const { return isKnown_; }
    bool isLate() const { return Clock::now().time_since_epoch().count() > deadline_; }
    // Ends whatever the session waits for.
    void drop() {
        {
            const std::lock_guard<std::mutex> lock(owner_.mutex_);
            isDropped_ = true;
        }
        owner_.changed_.notify_all();
        ::shutdown(socket_, SHUT_RDWR);
    }

private:
    void extend(std::chrono::seconds time) {
        deadline_ = (Clock::now() + time).time_since_epoch().count();
    }

    // What was sent last arrives only if nothing unread is left when the socket is closed.
    void sayGoodbye() {
        ::shutdown(socket_, SHUT_WR);
        char unread[4096];
        int left = kMostUnread;
        while (left > 0 && ::recv(socket_, unread, sizeof unread, 0) > 0)
            --left;
        ::shutdown(socket_, SHUT_RDWR);
    }

    // False when the peer has closed, or the line does not end where a line has to. A line that is
    // cut off by the end of the connection is none: half a password can be a password.
    bool readLine(std::string& line) {
        line.clear();
        for (;;) {
            char c = 0;
            const ssize_t received = ::recv(socket_, &c, 1, 0);
            if (received < 0 && errno == EINTR)
                continue;
            if (received != 1 || line.size() + 1 == kLineSize)
                return false;
            if (c == '\n')
                break;
            line += c;
        }
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        return true;
    }

    bool writeLine(std::string line) {
        line += '\n';
        return writeJ_n_chars(socket_, line.data(), static_cast<int>(line.size())) ==
               static_cast<int>(line.size());
    }

    bool answer(bool isGood) { return writeJ_UInt8(socket_, isGood ? 1 : 0) == 0; }

    bool logIn() {
        std::string user;
        std::string password;
        if (!readLine(user) || !readLine(password))
            return false;
        extend(kLongestWait + kLoginLimit);
        if (!owner_.waitForTurn(*this))
            return false;
        if (owner_.config_.current()->isValidPassword(user.c_str(), password.c_str()) == 0) {
            owner_.refused(address_);
            answer(false);
            return false;
        }
        isLoggedIn_ = owner_.enter(address_);
        return isLoggedIn_ && answer(true);
    }

    bool setConfig() {
        KP_ConfigAdmin wanted = *owner_.config_.current();
        wanted.reset();  // readJ() does not give the mappings back that it replaces
        if (wanted.readJ(socket_) != 0) {
            // Nobody knows where the next command begins.
            answer(false);
            return false;
        }
        refusal_ = owner_.config_.change(wanted, textOf(address_));
        return answer(refusal_.empty());
    }

    bool getStatus() {
        Status status = owner_.status_();
        status.emplace_back("client_address", textOf(address_));
        if (!refusal_.empty())
            status.emplace_back("refusal", refusal_);
        bool isGood =
            answer(true) && writeJ_UInt16(socket_, static_cast<unsigned short>(status.size())) == 0;
        for (const auto& [name, value] : status)
            isGood = isGood && writeLine(programs::printable(name + "=" + value));
        return isGood;
    }

    void serve() {
        if (!logIn())
            return;
        std::string command;
        const std::chrono::seconds limit = owner_.clientLimit_;
        for (extend(limit); readLine(command); extend(limit)) {
            extend(limit);
            bool isGood = true;
            if (command == "GET_CONFIG") {
                isGood = answer(true) && owner_.config_.current()->writeJ(socket_) == 0;
            } else if (command == "SET_CONFIG") {
                isGood = setConfig();
            } else if (command == "GET_STATUS") {
                isGood = getStatus();
            } else if (command == "QUIT") {
                return;
            } else {
                isGood = answer(false);
            }
            if (!isGood)
                return;
        }
    }

    FrontEnd& owner_;
    const int socket_;
    const std::uint32_t address_;
    const bool isKnown_;
    std::string refusal_;  // why the last configuration was not taken
    std::atomic<bool> isLoggedIn_{false};
    std::atomic<bool> isDropped_{false};
    std::atomic<bool> isDone_{false};
    std::atomic<Clock::rep> deadline_{0};
};

FrontEnd::FrontEnd(std::uint16_t port, LiveConfig& config, std::function<Status()> status,
                   std::chrono::seconds clientLimit)
    : listener_(listenOn(port)),
      config_(config),
      status_(std::move(status)),
      clientLimit_(clientLimit) {}

FrontEnd::~FrontEnd() {
    end();
    ::close(listener_);
}

void FrontEnd::end() {
    stop();
    join(nullptr, 0);
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        isEnding_ = true;
    }
    changed_.notify_all();
    lookAfterSessions(true);
    tellRefusals(true);
}

int FrontEnd::doTask() {
    pollfd waiting{listener_, POLLIN, 0};
    if (::poll(&waiting, 1, kTurn) > 0) {
        for (int i = 0; i < kMostAtOnce && accept(); ++i) {
        }
    }
    lookAfterSessions(false);
    tellRefusals(false);
    return 0;
}

// False when nobody waits to be let in.
bool FrontEnd::accept() {
    sockaddr_in peer{};
    socklen_t size = sizeof peer;
    const int socket =
        ::accept4(listener_, reinterpret_cast<sockaddr*>(&peer), &size, SOCK_CLOEXEC);
    if (socket < 0) {
        // Without descriptors the client stays in the queue, and the loop must not spin.
        if (errno == EMFILE || errno == ENFILE)
            pause(std::chrono::milliseconds(kTurn));
        return false;
    }
    // Each value is a send of its own, and must not wait for the acknowledgement of the last.
    const int on = 1;
    ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    const std::uint32_t address = ntohl(peer.sin_addr.s_addr);
    if (isRefused(address)) {
        ++refusals_;
        ::close(socket);
        return true;
    }
    bool isKnown = false;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        isKnown = limiter_.isKnown(address);
    }
    makeRoom(address, isKnown);
    auto* session = new Session(*this, socket, address, isKnown);
    if (session == nullptr) {
        ::close(socket);
        return true;
    }
    if (session->start() != 0) {
        session->release();
        return true;
    }
    sessions_.push_back(session);
    clientCount_ = sessions_.size();
    return true;
}

bool FrontEnd::isRefused(std::uint32_t address) {
    const auto fromThere = static_cast<std::size_t>(
        std::count_if(sessions_.begin(), sessions_.end(), [&](const Session* session) {
            return session->address() == address && session->isLoggedIn() && !session->isDone();
        }));
    return fromThere >= kMostOfOneAddress || config_.current()->isValidSourceIP(address) == 0;
}

// Has a guest go when there are as many as may be. One that comes counts with those of its address:
// whoever has most of them gives way, and never the only one of an address while another has two.
void FrontEnd::makeRoom(std::uint32_t address, bool isKnown) {
    std::map<std::uint32_t, std::size_t> guests;
    std::size_t all = 0;
    for (const Session* session : sessions_) {
        if (session->isGuest() && session->isKnown() == isKnown) {
            ++guests[session->address()];
            ++all;
        }
    }
    if (all < (isKnown ? kMostKnownGuests : kMostGuests))
        return;
    ++guests[address];
    Session* leaving = nullptr;
    std::size_t most = 0;
    for (Session* session : sessions_) {  // the oldest first
        if (session->isGuest() && session->isKnown() == isKnown &&
            guests[session->address()] > most) {
            most = guests[session->address()];
            leaving = session;
        }
    }
    if (leaving == nullptr)
        return;
    leaving->drop();
    ++refusals_;
    // Its thread ends at once, but so may hundreds that have not come to it yet.
    if (sessions_.size() < 2 * (kMostGuests + kMostKnownGuests + kMostLoggedIn))
        return;
    for (Session* session : sessions_) {
        if (session->isDropped())
            session->join(nullptr, 0);
    }
    lookAfterSessions(false);
}

void FrontEnd::lookAfterSessions(bool isEnd) {
    for (auto it = sessions_.begin(); it != sessions_.end();) {
        Session* const session = *it;
        if (isEnd || (session->isLate() && !session->isDropped()))
            session->drop();
        if (!isEnd && !session->isDone()) {
            ++it;
            continue;
        }
        session->join(nullptr, 0);
        session->release();
        it = sessions_.erase(it);
    }
    clientCount_ = sessions_.size();
}

bool FrontEnd::waitForTurn(const Session& session) {
    std::unique_lock<std::mutex> lock(mutex_);
    const Clock::time_point end = Clock::now() + kLongestWait;
    while (!isEnding_ && !session.isDropped()) {
        const Clock::time_point now = Clock::now();
        const auto later = limiter_.ask(session.address(), now);
        if (!later)
            return true;
        if (now >= end)
            break;
        changed_.wait_until(lock, std::min(*later, end));
    }
    ++refusals_;
    return false;
}

bool FrontEnd::enter(std::uint32_t address) {
    const std::lock_guard<std::mutex> lock(mutex_);
    limiter_.succeeded(address);
    changed_.notify_all();  // Others from there need not wait any more.
    if (loggedIn_ == kMostLoggedIn) {
        ++refusals_;
        return false;
    }
    ++loggedIn_;
    return true;
}

void FrontEnd::leave() {
    const std::lock_guard<std::mutex> lock(mutex_);
    --loggedIn_;
}

void FrontEnd::refused(std::uint32_t address) {
    ++refusals_;
    std::string line;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        const Clock::time_point now = Clock::now();
        limiter_.failed(address, now);
        line = refusalLog_.refused(address, now);
    }
    if (!line.empty())
        logLine(line);
}

void FrontEnd::tellRefusals(bool isEnd) {
    std::string line;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        line = refusalLog_.due(Clock::now(), isEnd);
    }
    if (!line.empty())
        logLine(line);
}

void FrontEnd::pause(std::chrono::milliseconds time) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, time, [this] { return isEnding_; });
}

}  // namespace kp::capture
