#include "options.h"

#include <functional>
#include <iostream>
#include <map>

#include "common/command_line.h"
#include "records/time_text.h"

namespace kp::query {

namespace {

constexpr const char* kFooter =
    R"(A TIME is local: YYYY-MM-DD, 'YYYY-MM-DD HH:MM', 'YYYY-MM-DD HH:MM:SS', today, yesterday
or now. --from takes the beginning of a TIME, --to its end: --from 2026-11-01 --to 2026-11-02
selects two whole days.
A PATTERN may have * for any text and ? for any character; upper and lower case are the same.
ADDRESSES are one address, LOW-HIGH or A.B.C.D/BITS. CODES are 404, 4xx, 400-499 or none.

Without conditions on single requests, top and totals use totals that kp-capture keeps, if the
times cover whole days (for totals: whole quarters of an hour); otherwise, and for top targets,
every request is read. An engine may record at the same time. Use the engine's time zone.
response_ms is the mean time from the first byte of a request to the first byte of its answer.

Exit status: 0 done (also when nothing was found), 1 failed, 2 wrong command line.)";

// An option whose text is parsed at once, so that a mistake is told with its name.
CLI::Option* addParsed(CLI::App& app, const std::string& name, const std::string& type,
                       const std::string& description,
                       const std::function<void(const std::string&)>& use) {
    return app
        .add_option_function<std::string>(
            name,
            [name, use](const std::string& text) {
                try {
                    use(text);
                } catch (const std::runtime_error& error) {
                    throw CLI::ValidationError(name, error.what());
                }
            },
            description)
        ->type_name(type);
}

void addConditions(CLI::App& app, Filter& filter) {
    addParsed(app, "--from", "TIME", "Only requests from this time on",
              [&](const std::string& text) { filter.from = records::parseTime(text).start; });
    addParsed(app, "--to", "TIME", "Only requests up to this time",
              [&](const std::string& text) { filter.to = records::parseTime(text).end; });
    app.add_option("--host", filter.host, "Only this host; - means none")->type_name("PATTERN");
    addParsed(app, "--client", "ADDRESSES", "Only requests from these addresses",
              [&](const std::string& text) { filter.client = parseAddresses(text); });
    addParsed(app, "--server", "ADDRESSES", "Only requests to these addresses",
              [&](const std::string& text) { filter.server = parseAddresses(text); });
    addParsed(app, "--status", "CODES", "Only answers with this status",
              [&](const std::string& text) { filter.status = parseStatus(text); });
    app.add_option("--type", filter.type, "Only this content type; - means none")
        ->type_name("PATTERN");
    app.add_flag("--content", filter.content, "Only content");
    app.add_flag("--page", filter.page, "Only valid pages");
    app.add_flag("--entry", filter.entry, "Only entry points");
}

// The value of a word; a mistake tells the words there are.
template <class Value>
Value chosen(const std::map<std::string, Value>& words, const std::string& text) {
    const auto found = words.find(text);
    if (found != words.end())
        return found->second;
    std::string known;
    for (const auto& [word, value] : words)
        known += (known.empty() ? "" : ", ") + word;
    throw FilterError("'" + text + "' is not one of " + known);
}

void addQuestions(CLI::App& app, Options& options) {
    const auto asked = [&](Options::Question question) {
        return [&options, question] { options.question = question; };
    };
    app.add_subcommand("list", "Lists requests, the oldest first")
        ->final_callback(asked(Options::Question::kList));
    CLI::App* const top = app.add_subcommand("top", "Ranks hosts, clients or others");
    top->final_callback(asked(Options::Question::kTop));
    const std::map<std::string, Ranked> ranked = {
        {"hosts", Ranked::kHosts}, {"clients", Ranked::kClients}, {"servers", Ranked::kServers},
        {"types", Ranked::kTypes}, {"methods", Ranked::kMethods}, {"targets", Ranked::kTargets}};
    addParsed(
        *top, "WHAT", "", "hosts, clients, servers, types, methods or targets",
        [&options, ranked](const std::string& text) { options.ranked = chosen(ranked, text); })
        ->required();
    const std::map<std::string, Order> orders = {{"requests", Order::kRequests},
                                                 {"bytes", Order::kBytes},
                                                 {"response", Order::kResponseTime}};
    addParsed(
        *top, "--order", "WHAT", "requests, bytes or response (default: requests)",
        [&options, orders](const std::string& text) { options.order = chosen(orders, text); });
    CLI::App* const totals = app.add_subcommand("totals", "Counts requests");
    totals->final_callback(asked(Options::Question::kTotals));
    const std::map<std::string, Period> periods = {{"hour", Period::kHour}, {"day", Period::kDay}};
    addParsed(
        *totals, "--by", "PERIOD", "hour or day (default: one row for all)",
        [&options, periods](const std::string& text) { options.period = chosen(periods, text); });
}

}  // namespace

std::optional<int> readOptions(int argc, char** argv, Options& options) {
    CLI::App app("Queries the records of kp-capture.", "kp-query");
    app.footer(kFooter);
    app.add_option("--dir", options.directory, "Directory of the installation")
        ->envname("KP_INSTALLDIR")
        ->type_name("DIR");
    app.add_option("--name", options.name, "Name of the installation's files")
        ->capture_default_str()
        ->type_name("NAME");
    app.add_option("--db", options.database,
                   "Directory of the day files\n"
                   "(default: the installation's database directory)")
        ->type_name("DIR");
    addConditions(app, options.filter);
    app.add_option("--limit", options.limit, "At most N rows (default: 10 for top, otherwise all)")
        ->check(CLI::Range(0, 2147483647))
        ->type_name("N");
    app.add_flag("--resolve", options.resolve,
                 "Add the names of addresses to list, top clients and top servers\n"
                 "(asks the name service)");
    CLI::Option* const tsv = app.add_flag(
        "--tsv", [&](std::int64_t) { options.format = Format::kTsv; },
        "Columns separated by tabs, after a header line;\n"
        "times in seconds since 1970");
    app.add_flag(
           "--json", [&](std::int64_t) { options.format = Format::kJson; },
           "One JSON array of objects; times in seconds since 1970")
        ->excludes(tsv);
    app.fallthrough();  // Options may also stand after the question.
    addQuestions(app, options);
    app.require_subcommand(1);
    const auto status = programs::readCommandLine(app, argc, argv);
    const Filter& filter = options.filter;
    if (!status && filter.from && filter.to && *filter.from >= *filter.to) {
        std::cerr << "kp-query: --from is later than --to\n";
        return 2;
    }
    return status;
}

}  // namespace kp::query
