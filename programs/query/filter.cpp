#include "filter.h"

#include <arpa/inet.h>

#include <charconv>

#include "records/schema.h"

namespace kp::query {

namespace {

constexpr std::int64_t kMicroseconds = 1000000;  // in a second

std::optional<int> statusOf(const std::string& text) {
    int status = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, status);
    if (text.size() != 3 || error != std::errc() || stop != end || status < 100)
        return {};
    return status;
}

std::optional<std::int64_t> addressOf(const std::string& text) {
    in_addr address = {};
    if (inet_pton(AF_INET, text.c_str(), &address) != 1)
        return {};
    return ntohl(address.s_addr);
}

// A pattern in SQLite's form, in which brackets have a meaning, too; "-" is the empty name.
std::string globOf(const std::string& pattern) {
    if (pattern == "-")
        return {};
    std::string glob;
    for (const char c : pattern)
        glob += c == '[' ? std::string("[[]") : std::string(1, c);
    return glob;
}

}  // namespace

Numbers parseAddresses(const std::string& text) {
    const std::size_t mark = text.find_first_of("-/");
    const auto low = addressOf(text.substr(0, mark));
    if (low && mark == std::string::npos)
        return {*low, *low};
    const std::string rest = mark == std::string::npos ? "" : text.substr(mark + 1);
    if (low && text[mark] == '-') {
        if (const auto high = addressOf(rest); high && *low <= *high)
            return {*low, *high};
    } else if (low) {
        int bits = -1;
        const char* const end = rest.data() + rest.size();
        const auto [stop, error] = std::from_chars(rest.data(), end, bits);
        if (error == std::errc() && stop == end && bits >= 0 && bits <= 32) {
            const std::int64_t others = (std::int64_t{1} << (32 - bits)) - 1;
            return {*low & ~others, *low | others};
        }
    }
    throw FilterError("'" + text + "' is not an address, LOW-HIGH or A.B.C.D/BITS");
}

Numbers parseStatus(const std::string& text) {
    if (text == "none")
        return {0, 0};
    if (const auto one = statusOf(text))
        return {*one, *one};
    const bool isClass = text.size() == 3 && text.compare(1, 2, "xx") == 0;
    if (const auto first = isClass ? statusOf(text.substr(0, 1) + "00") : std::nullopt)
        return {*first, *first + 99};
    const std::size_t dash = text.find('-');
    if (dash != std::string::npos) {
        const auto low = statusOf(text.substr(0, dash));
        const auto high = statusOf(text.substr(dash + 1));
        if (low && high && *low <= *high)
            return {*low, *high};
    }
    throw FilterError("'" + text + "' is not a status; give 404, 4xx, 400-499 or none");
}

bool Filter::touches(const records::Day& day) const {
    return (!from || *from < day.plus(2).start()) && (!to || *to > day.plus(-1).start());
}

Filter Filter::within(const DayFile& file) const {
    // Each alone is the first or the last entry of the index; both at once would be all of them.
    records::Statement times(file.database(),
                             "SELECT (SELECT min(time) FROM transactions), "
                             "(SELECT max(time) FROM transactions)");
    times.step();
    const bool isInside =
        times.isNull(0) || ((!from || *from * kMicroseconds <= file.time(times, 0)) &&
                            (!to || *to * kMicroseconds > file.time(times, 1)));
    Filter filter = *this;
    if (isInside) {
        filter.from.reset();
        filter.to.reset();
    }
    return filter;
}

bool Filter::isOfTimesOnly() const {
    return !host && !client && !server && !status && !type && !content && !page && !entry;
}

bool Filter::isOfWholeSlots(const DayFile& file) const {
    const std::int64_t first = file.firstSlot();
    const auto isBetween = [&](std::int64_t time) {
        return (time - first) % records::kSlotSeconds == 0;
    };
    return isOfTimesOnly() && (!from || isBetween(*from)) && (!to || isBetween(*to));
}

std::string Filter::where() const {
    std::string text;
    const auto add = [&](bool isAsked, const std::string& condition) {
        if (isAsked)
            text += (text.empty() ? " WHERE " : " AND ") + condition;
    };
    const auto named = [](const std::string& column, const std::string& table) {
        return column + " IN (SELECT id FROM " + table + " WHERE lower(name) GLOB lower(?))";
    };
    add(from.has_value(), "time >= ?");
    add(to.has_value(), "time < ?");
    add(host.has_value(), named("host", "hosts"));
    add(type.has_value(), named("type", "types"));
    add(client.has_value(), "client BETWEEN ? AND ?");
    add(server.has_value(), "server BETWEEN ? AND ?");
    add(status.has_value(), "ifnull(status, 0) BETWEEN ? AND ?");
    add(content, "content = 1");
    add(page, "valid_page = 1");
    add(entry, "entry_point = 1");
    return text;
}

int Filter::bind(records::Statement& statement) const {
    int parameter = 0;
    for (const auto& moment : {from, to}) {
        if (moment)
            statement.bind(++parameter, *moment * kMicroseconds);
    }
    for (const auto* pattern : {&host, &type}) {
        if (*pattern)
            statement.bindCopy(++parameter, globOf(**pattern));
    }
    for (const auto& numbers : {client, server, status}) {
        if (numbers) {
            statement.bind(++parameter, numbers->low);
            statement.bind(++parameter, numbers->high);
        }
    }
    return parameter + 1;
}

}  // namespace kp::query
