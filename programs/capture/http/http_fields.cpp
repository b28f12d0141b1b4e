#include "http/http_fields.h"

#include <algorithm>
#include <limits>

namespace kp::capture {

namespace {

constexpr std::string_view kVersion = "HTTP/1.";
constexpr std::string_view kBlanks = " \t";
constexpr std::size_t kMostMethod = 256;  // no method is this long; it bounds what is looked at

constexpr char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
}
constexpr bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

bool isTokenChar(char c) {
    if (isDigit(c) || (lower(c) >= 'a' && lower(c) <= 'z'))
        return true;
    return std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
}

bool isMethod(std::string_view text) {
    if (text.empty() || text.size() > kMostMethod)
        return false;
    for (const char c : text) {
        if (!isTokenChar(c))
            return false;
    }
    return true;
}

bool isVersion(std::string_view text) {
    return text.size() == kVersion.size() + 1 &&
           equalNoCase(text.substr(0, kVersion.size()), kVersion) && isDigit(text.back());
}

bool parseNumber(std::string_view text, std::uint64_t& number) {
    constexpr std::uint64_t kMost = std::numeric_limits<std::uint64_t>::max();
    if (text.empty())
        return false;
    number = 0;
    for (const char c : text) {
        if (!isDigit(c))
            return false;
        const auto digit = static_cast<std::uint64_t>(c - '0');
        if (number > (kMost - digit) / 10)
            return false;
        number = number * 10 + digit;
    }
    return true;
}

}  // namespace

bool equalNoCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size())
        return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (lower(a[i]) != lower(b[i]))
            return false;
    }
    return true;
}

std::string_view trim(std::string_view text) {
    const std::size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

std::optional<RequestLine> parseRequestLine(std::string_view line) {
    while (!line.empty() && kBlanks.find(line.back()) != std::string_view::npos) {
        line.remove_suffix(1);
    }
    const std::size_t methodEnd = line.find_first_of(kBlanks);
    const std::size_t versionBlank = line.find_last_of(kBlanks);
    if (methodEnd == std::string_view::npos || versionBlank == methodEnd)
        return {};
    if (!isVersion(line.substr(versionBlank + 1)))
        return {};
    RequestLine result;
    result.method = line.substr(0, methodEnd);
    result.target = trim(line.substr(methodEnd, versionBlank - methodEnd));
    if (!isMethod(result.method) || result.target.empty())
        return {};
    return result;
}

std::optional<int> parseStatusLine(std::string_view line) {
    constexpr std::size_t kVersionSize = kVersion.size() + 1;
    if (!isVersion(line.substr(0, kVersionSize)))
        return {};
    const std::string_view rest = trim(line.substr(kVersionSize));
    if (rest.size() < 3 || line[kVersionSize] == rest[0])
        return {};
    if (!isDigit(rest[0]) || !isDigit(rest[1]) || !isDigit(rest[2]) || rest[0] == '0')
        return {};
    if (rest.size() > 3 && kBlanks.find(rest[3]) == std::string_view::npos)
        return {};
    return (rest[0] - '0') * 100 + (rest[1] - '0') * 10 + (rest[2] - '0');
}

bool canBeginStatusLine(std::string_view part) {
    constexpr std::size_t kMostBlanks = 32;
    if (!equalNoCase(part.substr(0, kVersion.size()), kVersion.substr(0, part.size())))
        return false;
    if (part.size() <= kVersion.size())
        return true;
    if (!isDigit(part[kVersion.size()]))
        return false;
    part.remove_prefix(kVersion.size() + 1);
    const std::size_t blanks = std::min(part.find_first_not_of(kBlanks), part.size());
    const std::string_view status = part.substr(blanks);
    if (blanks > kMostBlanks || (blanks == 0 && !status.empty()) || status.size() > 3)
        return false;
    return std::all_of(status.begin(), status.end(), isDigit) &&
           (status.empty() || status[0] != '0');
}

bool canBeginStartLine(std::string_view part) {
    if (part.empty() || part == "\r")
        return true;
    if (equalNoCase(part.substr(0, kVersion.size()), kVersion.substr(0, part.size())))
        return true;
    const std::size_t methodEnd = part.find_first_of(kBlanks);
    return isMethod(part.substr(0, methodEnd));
}

BodyLength parseBodyLength(std::string_view transferEncoding, std::string_view contentLength) {
    using Form = BodyLength::Form;
    const std::size_t comma = transferEncoding.find_last_of(',');
    const std::string_view coding = trim(
        comma == std::string_view::npos ? transferEncoding : transferEncoding.substr(comma + 1));
    if (equalNoCase(coding, "chunked"))
        return {Form::kChunked, 0};
    if (!trim(transferEncoding).empty() && !equalNoCase(coding, "identity")) {
        return {Form::kUnclear, 0};
    }

    if (contentLength.empty())
        return {};
    BodyLength result{Form::kAbsent, 0};
    for (;;) {
        const std::size_t end = contentLength.find(',');
        std::uint64_t bytes = 0;
        if (!parseNumber(trim(contentLength.substr(0, end)), bytes) ||
            (result.form == Form::kBytes && bytes != result.bytes)) {
            return {Form::kUnclear, 0};
        }
        result = {Form::kBytes, bytes};
        if (end == std::string_view::npos)
            return result;
        contentLength.remove_prefix(end + 1);
    }
}

}  // namespace kp::capture
