#include "common/general_file.h"

#include <arpa/inet.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "common/printable.h"
#include "kp/kp.h"

namespace kp::programs {

namespace {

constexpr std::size_t kLongestLine = 1023;  // one more, and the reader takes it for two
constexpr std::size_t kLongestFlag = 127;
constexpr std::uint32_t kMostMappings = 65535;
constexpr const char* kBlanks = " \t";

class Fault : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The lines of the file, in the order in which they have to come.
class Checker {
public:
    explicit Checker(std::istream& file) : file_(file) {}

    void check() {
        for (int i = 0; i < 3; ++i)
            read();  // the banner
        empty();
        comment();
        number("the version");
        empty();
        comment();
        number("the flag of the statistics", kLongestFlag);
        empty();
        comment();
        read();
        if (length_ >= sizeof KP_Config::filterProgram)
            fail("the filter is too long");
        empty();
        comment();
        number("the days to keep");
        empty();
        comment();
        const std::uint32_t mappings = number("the number of mappings");
        if (mappings > kMostMappings)
            fail("there cannot be so many mappings");
        empty();
        comment();
        for (std::uint32_t i = 0; i < mappings; ++i)
            mapping();
        empty();
        comment();
        user();
    }

private:
    [[noreturn]] void fail(const std::string& what) const {
        throw Fault("line " + std::to_string(number_) + ": " + what);
    }
    [[noreturn]] void misplaced(const std::string& what) const {
        fail("here should be " + what +
             "; a line may be missing, be too many or be broken before this one");
    }

    // A carriage return before the line feed says nothing about the places of the lines.
    void read() {
        ++number_;
        line_.clear();
        std::streambuf& bytes = *file_.rdbuf();
        constexpr int kEnd = std::char_traits<char>::eof();
        int c = bytes.sbumpc();
        for (; c != '\n' && c != kEnd; c = bytes.sbumpc()) {
            if (c == '\0')
                fail("there is a byte 0");
            if (line_.size() == kLongestLine)
                fail("more than " + std::to_string(kLongestLine) + " characters");
            line_ += static_cast<char>(c);
        }
        // The reader takes a last line without a line feed if its value is closed.
        if (c == kEnd && line_.find('}') == std::string::npos)
            fail("the file is cut off");
        length_ = line_.size();
        if (!line_.empty() && line_.back() == '\r')
            line_.pop_back();
    }

    void empty() {
        read();
        if (line_.find_first_not_of(kBlanks) != std::string::npos)
            misplaced("an empty line");
    }

    void comment() {
        read();
        if (line_.empty() || line_[0] != '#')
            misplaced("a comment, which begins with '#'");
    }

    // The reader looks for a number on the lines that follow, too; so it has to be here.
    std::uint32_t number(const std::string& what, std::size_t longest = kLongestLine) {
        read();
        const std::size_t first = std::min(line_.find_first_not_of(kBlanks), line_.size());
        const std::size_t end = std::min(line_.find_first_of(kBlanks, first), line_.size());
        const auto value = numberIn(std::string_view(line_).substr(first, end - first));
        if (!value || length_ > longest)
            misplaced(what + ", a number");
        return *value;
    }

    static std::optional<std::uint32_t> numberIn(std::string_view text) {
        std::uint32_t value = 0;
        const char* const end = text.data() + text.size();
        const auto [stop, error] = std::from_chars(text.data(), end, value);
        if (error != std::errc() || stop != end)
            return {};
        return value;
    }

    static std::vector<std::string> piecesOf(const std::string& text) {
        std::vector<std::string> pieces;
        std::size_t start = text.find_first_not_of(kBlanks);
        while (start != std::string::npos) {
            const std::size_t end = std::min(text.find_first_of(kBlanks, start), text.size());
            pieces.push_back(text.substr(start, end - start));
            start = text.find_first_not_of(kBlanks, end);
        }
        return pieces;
    }

    void mapping() {
        read();
        const std::size_t pieces =
            piecesOf(line_ + std::string(length_ - line_.size(), '\r')).size();
        if (pieces == 0)
            misplaced("the mapping of a MIME type");
        if (pieces - 1 > KP_Config::kMaxPostfixes)
            fail("more than " + std::to_string(KP_Config::kMaxPostfixes) + " extensions");
    }

    // What stands between the braces of a line of its own.
    std::string value(const std::string& label) {
        read();
        const std::string start = label + "{";
        const std::size_t end = line_.find_last_not_of(kBlanks);
        if (line_.compare(0, start.size(), start) != 0 || line_[end] != '}')
            misplaced(start + "...}");
        const std::string text = line_.substr(start.size(), end - start.size());
        if (text.find_first_of("{}") != std::string::npos)
            fail("the value of " + label + " has a brace");
        return text;
    }

    std::uint32_t numberAt(const std::string& label) {
        const auto number = numberIn(value(label));
        if (!number)
            fail(label + " is not a number");
        return *number;
    }

    void addresses(const std::string& label, std::uint32_t count, bool allOnes) {
        const std::vector<std::string> pieces = piecesOf(value(label));
        if (pieces.size() != count) {
            fail(std::to_string(pieces.size()) + " addresses where numOfNets has " +
                 std::to_string(count));
        }
        for (const std::string& piece : pieces) {
            if (inet_addr(piece.c_str()) == INADDR_NONE && !(allOnes && piece == "255.255.255.255"))
                fail("Malformed IP Address: " + piece);
        }
    }

    void user() {
        const std::string password = value("password");
        if (password.empty())
            fail("the password is empty, so everybody could administer");
        if (password.size() >= sizeof KP_Config::password)
            fail("the password is too long");
        numberAt("applyNetAddress");
        const std::uint32_t nets = numberAt("numOfNets");
        if (nets > KP_Config::kMaxNets)
            fail("more than " + std::to_string(KP_Config::kMaxNets) + " networks");
        addresses("exampleAddress", nets, false);
        addresses("maskAddress", nets, true);
    }

    std::istream& file_;
    std::string line_;        // without a carriage return at its end
    std::size_t length_ = 0;  // with it, as the reader sees the line
    unsigned number_ = 0;
};

}  // namespace

std::string generalFileFault(std::istream& file) {
    try {
        Checker(file).check();
    } catch (const Fault& fault) {
        return printable(fault.what());
    }
    return "";
}

std::string generalFileFault(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0)
        return path + ": " + std::strerror(errno);
    if (!S_ISREG(status.st_mode))
        return path + " is not a file";
    std::ifstream file(path, std::ios::binary);
    if (!file)
        return path + ": " + std::strerror(errno);
    const std::string fault = generalFileFault(file);
    return fault.empty() ? "" : path + ": " + fault;
}

}  // namespace kp::programs
