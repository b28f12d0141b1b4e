#include "support/installation.h"

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <stdexcept>

#include "kp/core/log.h"
#include "support/child.h"

namespace kp::test {

Installation::Installation() {
    root_ = (std::filesystem::temp_directory_path() / "kp-test-XXXXXX").string();
    if (::mkdtemp(root_.data()) == nullptr) {
        throw std::runtime_error("no temporary directory");
    }
    for (const char* directory : {"admin", "logs", "db"}) {
        std::filesystem::create_directory(path(directory));
    }
    if (const char* value = std::getenv("KP_INSTALLDIR")) {
        previous_ = value;
    }
    ::setenv("KP_INSTALLDIR", root_.c_str(), 1);
}

Installation::~Installation() {
    KP_Log::reset();
    if (previous_) {
        ::setenv("KP_INSTALLDIR", previous_->c_str(), 1);
    } else {
        ::unsetenv("KP_INSTALLDIR");
    }
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
}

std::string Installation::path(const std::string& below) const {
    return below.empty() ? root_ : root_ + "/" + below;
}

void Installation::write(const std::string& below, const std::string& content) const {
    std::ofstream(path(below), std::ios::binary) << content;
}

std::string Installation::read(const std::string& below) const {
    return contentOf(path(below));
}

std::FILE* Installation::file(const std::string& content) const {
    write("file", content);
    return std::fopen(path("file").c_str(), "r");
}

void Installation::openLog(int level) const {
    KP_Log::init("test", level, nullptr);
}

std::string Installation::newLog() {
    static const std::regex stamp("[0-9]{4}[A-Z][a-z]{2}[0-9]{2}-[0-9]{2}:[0-9]{2} - ");
    const std::string added = read("logs/test.log").substr(seen_);
    seen_ += added.size();
    return std::regex_replace(added, stamp, "TIME - ");
}

std::string contentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    EXPECT_TRUE(file) << path;
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

void expectQuit(Installation& site, const std::function<void()>& body, const std::string& log) {
    site.newLog();
    const Outcome outcome = runInChild([&] {
        body();
        return 0;
    });
    EXPECT_EQ(outcome.status, 1) << log << outcome.err;
    EXPECT_EQ(site.newLog(), log);
}

std::string with(std::string text, const std::string& from, const std::string& to) {
    const std::size_t place = text.find(from);
    EXPECT_NE(place, std::string::npos) << from;
    return place == std::string::npos ? text : text.replace(place, from.size(), to);
}

}  // namespace kp::test
