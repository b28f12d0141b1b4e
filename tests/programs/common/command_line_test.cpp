// Manual pages and completions say what the help says.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <regex>
#include <set>
#include <utility>

#include "support/installation.h"
#include "support/program.h"

namespace {

using kp::test::Outcome;
using kp::test::runProgram;

std::string withoutBackslashes(std::string text) {
    text.erase(std::remove(text.begin(), text.end(), '\\'), text.end());
    return text;
}

// What the pattern's group finds in the text, each once.
std::set<std::string> allOf(const std::string& text, const char* pattern) {
    const std::regex regex(pattern, std::regex::multiline);
    std::set<std::string> result;
    for (std::sregex_iterator each(text.begin(), text.end(), regex), end; each != end; ++each)
        result.insert(each->str(1));
    return result;
}

TEST(CommandLineTest, ManualAndCompletionsHaveEveryOptionAndCommandOfTheHelp) {
    const kp::test::Installation site;
    for (const std::string program : {KP_ADMIN, KP_CAPTURE, KP_CONFIGURE, KP_QUERY}) {
        const std::string name = std::filesystem::path(program).filename().string();
        ASSERT_EQ(runProgram(program, {"--write-texts", site.path()}).status, 0);
        std::string help = runProgram(program, {"--help"}).out;
        std::set<std::string> words;
        if (const std::size_t list = help.find("\nSubcommands:\n"); list != std::string::npos) {
            for (const std::string& command : allOf(help.substr(list), "^  ([a-z]+) ")) {
                help += runProgram(program, {command, "--help"}).out;
                words.insert(command);
            }
            EXPECT_GE(words.size(), 3U) << name;
        }
        EXPECT_EQ(help.find("\n\n\n"), std::string::npos) << help;
        const std::string manual = withoutBackslashes(site.read(name + ".1"));
        const std::string zsh = site.read(name + ".zsh");
        const std::string bash = site.read(name + ".bash");
        // With two colons zsh would offer no options behind a command.
        EXPECT_EQ(zsh.find("::argument"), std::string::npos);
        for (const std::string& word : words)
            EXPECT_NE(manual.find(word), std::string::npos) << word;
        const std::set<std::string> options = allOf(help, "(--[a-z][a-z-]+)");
        EXPECT_GT(options.size(), 5U) << name;
        for (const std::string& option : options) {
            EXPECT_NE(manual.find("fB" + option + "fR"), std::string::npos) << option;
            EXPECT_NE(zsh.find(option + "["), std::string::npos) << option;
            words.insert(option);
        }
        for (const std::string& word : words)
            EXPECT_TRUE(std::regex_search(bash, std::regex("-W '.*" + word + "[ ']"))) << word;
        EXPECT_EQ(manual.find(".."), std::string::npos);
        EXPECT_EQ(runProgram(program, {"--version"}).out, name + " " KP_VERSION "\n");
        EXPECT_EQ(runProgram(program, {"--nonsense"}).status, 2);
        EXPECT_EQ(runProgram(program, {"--write-texts", site.path("none")}).status, 2);
    }
    const Outcome completed =
        runProgram("/bin/bash", {"-c",
                                 "source $0; COMP_WORDS=(kp-query top --ser); COMP_CWORD=2; "
                                 "_kp_query; echo ${COMPREPLY[*]}",
                                 site.path("kp-query.bash")});
    EXPECT_EQ(completed.out, "--server\n") << completed.err;
}

TEST(CommandLineTest, OptionsThatTakePathsAreCompletedWithPaths) {
    const kp::test::Installation site;
    const std::pair<std::string, std::string> options[] = {
        {KP_ADMIN, "--password-file"}, {KP_CAPTURE, "--replay"},          {KP_CAPTURE, "--dir"},
        {KP_CONFIGURE, "--dbpath"},    {KP_CONFIGURE, "--password-file"}, {KP_QUERY, "--db"}};
    for (const auto& [program, option] : options) {
        const std::string name = std::filesystem::path(program).filename().string();
        ASSERT_EQ(runProgram(program, {"--write-texts", site.path()}).status, 0);
        const Outcome completed =
            runProgram("/bin/bash", {"-c",
                                     "source $0.bash; COMP_WORDS=($1 $2 $3); COMP_CWORD=2; "
                                     "_${1/-/_}; echo ${COMPREPLY[*]}",
                                     site.path(name), name, option, site.path("lo")});
        EXPECT_EQ(completed.out, site.path("logs") + "\n") << name << option << completed.err;
    }
}

}  // namespace
