// Manual pages and completions say what the help says.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <regex>

#include "support/installation.h"
#include "support/program.h"

namespace {

using kp::test::Outcome;
using kp::test::runProgram;

std::string withoutBackslashes(std::string text) {
    text.erase(std::remove(text.begin(), text.end(), '\\'), text.end());
    return text;
}

TEST(CommandLineTest, ManualAndCompletionsHaveEveryOptionOfTheHelp) {
    const kp::test::Installation site;
    const std::regex option("--[a-z][a-z-]+");
    for (const std::string program : {KP_ADMIN, KP_CAPTURE, KP_CONFIGURE, KP_QUERY}) {
        const std::string name = std::filesystem::path(program).filename().string();
        ASSERT_EQ(runProgram(program, {"--write-texts", site.path()}).status, 0);
        const Outcome help = runProgram(program, {"--help"});
        EXPECT_EQ(help.status, 0);
        const std::string manual = withoutBackslashes(site.read(name + ".1"));
        const std::string zsh = site.read(name + ".zsh");
        int options = 0;
        for (std::sregex_iterator each(help.out.begin(), help.out.end(), option), end; each != end;
             ++each, ++options) {
            EXPECT_NE(manual.find("fB" + each->str() + "fR"), std::string::npos) << each->str();
            EXPECT_NE(zsh.find(each->str() + "["), std::string::npos) << each->str();
        }
        EXPECT_GT(options, 5) << name;
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

}  // namespace
