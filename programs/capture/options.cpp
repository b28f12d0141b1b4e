#include "options.h"

#include "common/command_line.h"
#include "records/time_text.h"

namespace kp::capture {

namespace {

constexpr const char* kDescription =
    "Watches web traffic: recognises HTTP/1.x on any TCP port, pairs requests with their answers\n"
    "and judges them by the installation's configuration. Ends with a summary on standard error.";

constexpr const char* kFooter = R"(The configured packet filter applies to devices and files alike.

Columns of --print, separated by tabs, a line for each request when its answer has ended:
   1  time of the request, seconds.microseconds     9  status, or -
   2  client address       3  client port          10  content type without parameters, or -
   4  server address       5  server port          11  bytes seen of the answer's body
   6  method                                       12  client or server inside the ranges, 1 or 0
   7  Host, or -                                   13  content, 1 or 0
   8  target as sent                               14  valid page, 1 or 0
                                                   15  entry point, 1 or 0
Content has a type with text/, audio/, video/ or application/ in it, whatever its status. A valid
page has the status 200 to 203 or 304. An entry point is content that was not reached from a page of
the same site: there is no Referer, or the Referer does not contain the Host. Tabs, line ends, backslashes and bytes that are not
printable ASCII are written as \xHH.

Signals: SIGINT, SIGTERM and SIGQUIT end the engine in order, a second one at once; SIGHUP opens the
log anew and reads the ranges of the installation file again; others do nothing.

Exit status: 0 done (also when a signal ended it), 1 failed, 2 wrong command line, 3 done with
losses: the system or the interface dropped packets, transactions were not recorded, or the device
was missing or down for a while.)";

std::string checkName(const std::string& name) {
    if (name.empty() || name.size() > 100 || name.find_first_of("/\\.") != std::string::npos) {
        return "a name must have 1 to 100 characters, without slash, backslash or dot";
    }
    return {};
}

std::string checkNotEmpty(const std::string& text) {
    return text.empty() ? "must not be empty" : std::string();
}

}  // namespace

std::optional<int> readOptions(int argc, char** argv, Options& options) {
    CLI::App app(kDescription, "kp-capture");
    app.footer(kFooter);
    app.add_option("--dir", options.directory, "Directory of the installation")
        ->envname("KP_INSTALLDIR")
        ->type_name("DIR");
    app.add_option("--name", options.name, "Name of the installation's files")
        ->check(checkName)
        ->capture_default_str()
        ->type_name("NAME");
    CLI::Option* replay =
        app.add_option("--replay", options.replay,
                       "Read a capture file (pcap or pcapng; - is standard input)\n"
                       "instead of watching a device")
            ->check(checkNotEmpty)
            ->type_name("FILE");
    app.add_option("--device", options.device, "Watch this device instead of the configured one")
        ->check(checkNotEmpty)
        ->excludes(replay)
        ->type_name("DEV");
    app.add_flag("--wait", options.wait, "Wait for a device that is missing or down at the start")
        ->excludes(replay);
    app.add_option("--buffer", options.buffer,
                   "MiB of packets that the system keeps for us while we are busy;\n"
                   "what does not fit is dropped and counted")
        ->check(CLI::Range(1, 2047))
        ->excludes(replay)
        ->capture_default_str()
        ->type_name("MIB");
    app.add_option("--readers", options.readers,
                   "Threads that read packets from the device. The system deals out\n"
                   "whole connections to them; the buffer is divided among them")
        ->check(CLI::Range(1, 64))
        ->excludes(replay)
        ->capture_default_str()
        ->type_name("N");
    app.add_option("--threads", options.threads, "Threads that follow connections and read HTTP")
        ->check(CLI::Range(1, 64))
        ->capture_default_str()
        ->type_name("N");
    app.add_option_function<std::string>(
           "--start",
           [&](const std::string& text) {
               try {
                   options.start = records::parseTime(text).start;
               } catch (const records::TimeTextError& error) {
                   throw CLI::ValidationError("--start", error.what());
               }
           },
           "Shift the times so that the first packet arrives in the second TIME:\n"
           "now, today, yesterday, YYYY-MM-DD or \"YYYY-MM-DD HH:MM[:SS]\"")
        ->needs(replay)
        ->type_name("TIME");
    CLI::Option* const record = app.add_flag_callback(
        "--record", [&] { options.record = true; },
        "Write the transactions inside the ranges into the database\n"
        "directory, one file per day; kp-query reads them\n"
        "(default when a device is watched)");
    app.add_flag_callback(
           "--no-record", [&] { options.record = false; }, "Record nothing")
        ->excludes(record);
    app.add_flag("--delete-old", options.deleteOld,
                 "Delete all days that are too old, also those before more than a\n"
                 "month without records, which are kept as the clock may be wrong");
    app.add_flag("--answers-alone", options.answersAlone,
                 "Make transactions of answers without a known request, too, with the\n"
                 "method and target -, as where only one direction is captured");
    app.add_flag("--serve", options.serve,
                 "Serve the administration front end (for kp-admin) on the configured\n"
                 "port; after a replay, serving continues until a signal ends it");
    app.add_option("--client-timeout", options.clientTimeout,
                   "Seconds that a client of the front end may take for a command\n"
                   "and between two commands; for its login at most 5")
        ->check(CLI::Range(1, 86400))
        ->capture_default_str()
        ->type_name("SECONDS");
    app.add_flag("-v,--verbose", options.verbose, "Write debug lines to the log");
    app.add_flag("--print", options.print, "Print a line for each transaction inside the ranges");
    app.add_flag("--all", options.all,
                 "With --print: print transactions outside the ranges as well");

    return programs::readCommandLine(app, argc, argv);
}

}  // namespace kp::capture
