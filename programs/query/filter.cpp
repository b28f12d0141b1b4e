#include "filter.h"

#include <charconv>

#include "common/settings.h"
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

}  // namespace

Numbers parseAddresses(const std::string& text) {
    const bool isOne = text.find_first_of("-/") == std::string::npos;
    const KP_Config::IPRange range = programs::parseRange(isOne ? text + "/32" : text);
    return {range.min, range.max};
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
    throw FilterError("'" + text + "' is no status; give 404, 4xx, 400-499 or none");
}

bool Filter::touches(const records::Day& day) const {
    return (!from || *from < day.plus(2).start()) && (!to || *to > day.plus(-1).start());
}

bool Filter::covers(records::Database& database) const {
    records::Statement times(database, "SELECT min(time), max(time) FROM transactions");
    times.step();
    return times.isNull(0) || ((!from || *from * kMicroseconds <= times.number(0)) &&
                               (!to || *to * kMicroseconds > times.number(1)));
}

bool Filter::isOfTimesOnly() const {
    return !host && !client && !server && !status && !type && !content && !page && !entry;
}

bool Filter::isOfWholeSlots(records::Database& database) const {
    const std::int64_t first = database.number("SELECT min(start) FROM slots");
    const auto isBetween = [&](std::int64_t time) {
        return (time - first) % records::kSlotSeconds == 0;
    };
    return isOfTimesOnly() &&
           (covers(database) || ((!from || isBetween(*from)) && (!to || isBetween(*to))));
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

void Filter::bind(records::Statement& statement) const {
    int parameter = 0;
    for (const auto& moment : {from, to}) {
        if (moment)
            statement.bind(++parameter, *moment * kMicroseconds);
    }
    for (const auto* pattern : {&host, &type}) {
        if (*pattern)
            statement.bind(++parameter, **pattern == "-" ? std::string_view() : **pattern);
    }
    for (const auto& numbers : {client, server, status}) {
        if (numbers) {
            statement.bind(++parameter, numbers->low);
            statement.bind(++parameter, numbers->high);
        }
    }
}

}  // namespace kp::query
