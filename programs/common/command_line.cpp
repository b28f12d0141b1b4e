#include "command_line.h"

#include <cctype>
#include <fstream>
#include <iostream>
#include <sstream>
#include <vector>

#include "common/printable.h"

namespace kp::programs {

namespace {

const std::vector<std::string> kPrograms = {"kp-admin", "kp-capture", "kp-configure", "kp-query"};

// A line of roff that says nothing but this text.
std::string roff(const std::string& text) {
    std::string result;
    bool isStart = true;
    for (const char c : text) {
        if (isStart && (c == '.' || c == '\''))
            result += "\\&";  // or the line would be a request
        isStart = c == '\n';
        if (c == '\\') {
            result += "\\e";
        } else if (c == '-') {
            result += "\\-";
        } else {
            result += c;
        }
    }
    return result;
}

std::string upper(std::string text) {
    for (char& c : text)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return text;
}

std::vector<const CLI::App*> commandsOf(const CLI::App& app) {
    return app.get_subcommands([](const CLI::App*) { return true; });
}

// An option's names as they are typed; none of a positional one.
std::vector<std::string> namesOf(const CLI::Option& option) {
    std::vector<std::string> names;
    for (const std::string& name : option.get_snames())
        names.push_back("-" + name);
    for (const std::string& name : option.get_lnames())
        names.push_back("--" + name);
    return names;
}

// A command's own help is the program's.
bool isHelp(const CLI::Option& option) {
    return option.check_lname("help");
}

bool isFlag(const CLI::Option& option) {
    return option.get_expected_max() == 0 || option.get_type_size_max() == 0;
}

// The word for an option's value; what may be said of it stands behind a colon.
std::string valueOf(const CLI::Option& option) {
    const std::string type = option.get_type_name();
    const std::string word = type.substr(0, type.find(':'));
    return word.empty() ? "VALUE" : word;
}

std::string limitsOf(const CLI::Option& option) {
    const std::string type = option.get_type_name();
    const std::size_t limits = type.find(" in [");
    return limits == std::string::npos ? "" : type.substr(limits + 4);
}

std::string descriptionOf(const CLI::Option& option) {
    std::string text = option.get_description();
    for (char& c : text)
        c = c == '\n' ? ' ' : c;
    return text;
}

void writeOption(std::ostream& page, const CLI::Option& option) {
    page << ".TP\n";
    const std::vector<std::string> names = namesOf(option);
    if (names.empty())
        page << "\\fI" << roff(option.get_name(true)) << "\\fR";
    for (std::size_t i = 0; i < names.size(); ++i)
        page << (i == 0 ? "\\fB" : "\\fR, \\fB") << roff(names[i]) << "\\fR";
    if (!names.empty() && !isFlag(option))
        page << " \\fI" << roff(valueOf(option)) << "\\fR";
    const std::string description = descriptionOf(option);
    page << '\n' << roff(description) << (description.back() == '.' ? "\n" : ".\n");
    if (const std::string limits = limitsOf(option); !limits.empty())
        page << "Within " << roff(limits) << ".\n";
    if (!option.get_default_str().empty())
        page << "Default: " << roff(option.get_default_str()) << ".\n";
    if (!option.get_envname().empty())
        page << "The environment variable " << option.get_envname() << " has the same effect.\n";
}

std::string functionName(const std::string& program) {
    std::string name = "_";
    for (const char c : program)
        name += c == '-' ? '_' : c;
    return name;
}

bool isPath(const CLI::Option& option) {
    const std::string value = valueOf(option);
    return value == "FILE" || value == "DIR";
}

// The options of a program and of all its commands.
std::vector<const CLI::Option*> allOptions(const CLI::App& app) {
    std::vector<const CLI::Option*> options = app.get_options();
    for (const CLI::App* command : commandsOf(app)) {
        for (const CLI::Option* option : command->get_options()) {
            if (!isHelp(*option))
                options.push_back(option);
        }
    }
    return options;
}

std::string withoutBrackets(const std::string& text) {
    std::string result;
    for (const char c : text) {
        if (c == '[' || c == ']' || c == ':' || c == '\'')
            result += c == '\'' ? "'\\''" : std::string("\\") + c;
        else
            result += c;
    }
    return result;
}

std::string manualPage(const CLI::App& app) {
    const std::string& name = app.get_name();
    std::string description = app.get_description();
    const std::string first = description.substr(0, description.find_first_of(".\n:"));
    std::ostringstream page;
    page << ".TH " << upper(name) << " 1 \"\" \"libkp " KP_VERSION "\" \"User commands\"\n"
         << ".SH NAME\n"
         << roff(name) << " \\- " << roff(first) << "\n.SH SYNOPSIS\n.B " << roff(name)
         << "\n[\\fIOPTIONS\\fR]";
    const std::vector<const CLI::App*> commands = commandsOf(app);
    if (!commands.empty())
        page << " \\fICOMMAND\\fR [\\fIARGUMENTS\\fR]";
    page << "\n.SH DESCRIPTION\n" << roff(description) << "\n";
    if (!commands.empty()) {
        page << ".SH COMMANDS\n";
        for (const CLI::App* command : commands) {
            page << ".SS " << roff(command->get_name()) << "\n"
                 << roff(command->get_description()) << ".\n";
            for (const CLI::Option* option : command->get_options()) {
                if (!isHelp(*option))
                    writeOption(page, *option);
            }
        }
    }
    page << ".SH OPTIONS\n";
    for (const CLI::Option* option : app.get_options())
        writeOption(page, *option);
    page << ".SH NOTES\n.nf\n" << roff(app.get_footer()) << "\n.fi\n.SH SEE ALSO\n";
    std::string others;
    for (const std::string& other : kPrograms) {
        if (other != name)
            others += (others.empty() ? "" : ", ") + ("\\fB" + roff(other) + "\\fR(1)");
    }
    page << others << '\n';
    return page.str();
}

std::string bashCompletion(const CLI::App& app) {
    const std::string& name = app.get_name();
    std::string words;
    std::string paths;
    std::string values;
    for (const CLI::App* command : commandsOf(app))
        words += command->get_name() + " ";
    for (const CLI::Option* option : allOptions(app)) {
        for (const std::string& each : namesOf(*option)) {
            words += each + " ";
            if (!isFlag(*option))
                (isPath(*option) ? paths : values) += "|" + each;
        }
    }
    std::ostringstream text;
    text << "# bash completion of " << name << "\n"
         << functionName(name) << "() {\n    local cur=${COMP_WORDS[COMP_CWORD]} "
         << "prev=${COMP_WORDS[COMP_CWORD - 1]}\n    case $prev in\n";
    if (!paths.empty())
        text << "        " << paths.substr(1)
             << ") mapfile -t COMPREPLY < <(compgen -f -- \"$cur\"); return ;;\n";
    if (!values.empty())
        text << "        " << values.substr(1) << ") COMPREPLY=(); return ;;\n";
    text << "    esac\n    mapfile -t COMPREPLY < <(compgen -W '" << words
         << "' -- \"$cur\")\n}\ncomplete -F " << functionName(name) << " -o filenames " << name
         << "\n";
    return text.str();
}

std::string zshCompletion(const CLI::App& app) {
    std::ostringstream text;
    text << "#compdef " << app.get_name() << "\n_arguments";
    for (const CLI::Option* option : allOptions(app)) {
        for (const std::string& each : namesOf(*option)) {
            const bool isRepeatable = option->get_items_expected_max() > 1;
            text << " \\\n    '" << (isRepeatable ? "*" : "") << each << "["
                 << withoutBrackets(descriptionOf(*option)) << "]";
            if (!isFlag(*option))
                text << ":" << valueOf(*option) << ":" << (isPath(*option) ? "_files" : "");
            text << "'";
        }
    }
    std::string commands;
    for (const CLI::App* command : commandsOf(app))
        commands += (commands.empty() ? "" : " ") + command->get_name();
    if (!commands.empty())
        text << " \\\n    '1:command:(" << commands << ")' \\\n    '*:argument:'";
    text << "\n";
    return text.str();
}

void write(const std::string& path, const std::string& text) {
    std::ofstream file(path);
    file << text;
    file.close();
    if (!file)
        throw CLI::FileError("cannot write " + path);
}

void writeTexts(const CLI::App& app, const std::string& directory) {
    const std::string start = directory + "/" + app.get_name();
    write(start + ".1", manualPage(app));
    write(start + ".bash", bashCompletion(app));
    write(start + ".zsh", zshCompletion(app));
}

}  // namespace

std::optional<int> readCommandLine(CLI::App& app, int argc, char** argv) {
    app.set_version_flag("--version", app.get_name() + " " KP_VERSION);
    try {
        if (argc == 3 && std::string(argv[1]) == "--write-texts") {
            writeTexts(app, argv[2]);
            return 0;
        }
        app.parse(argc, argv);
    } catch (const CLI::Success& success) {
        return app.exit(success);  // prints the help or the version
    } catch (const CLI::ParseError& error) {
        std::cerr << app.get_name() << ": " << printable(error.what()) << "\n"
                  << app.get_name() << " --help lists the options.\n";
        return 2;
    }
    return {};
}

}  // namespace kp::programs
