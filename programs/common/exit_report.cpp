#include "common/exit_report.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "common/printable.h"

namespace kp::programs {

namespace {

// Exit handlers get no argument.
std::atomic<const ExitReport*> current{nullptr};

}  // namespace

ExitReport::ExitReport(std::string text) : text_(std::move(text)), outer_(current.load()) {
    static const int registered = std::atexit(tell);
    static_cast<void>(registered);
    current = this;
}

ExitReport::~ExitReport() {
    current = outer_;
}

void ExitReport::tell() {
    if (const ExitReport* const report = current)
        std::fprintf(stderr, "%s\n", printable(report->text_).c_str());
}

}  // namespace kp::programs
