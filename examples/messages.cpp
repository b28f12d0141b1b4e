// A message goes through a tree of handlers, depth first, until one of them deals with it. The root
// is an engine manager, which also opens the log: KP_INSTALLDIR names a directory with logs/ in it.
#include <kp/kp.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <utility>

namespace {

// Deals with messages that begin with its name, and passes others on to the handlers below it.
class Part : public KP_MessageHandler {
public:
    explicit Part(std::string name) : name_(std::move(name)) {}

    int handleMessage(KP_Message* message) override {
        const bool isMine = std::string(message->getMessage()).rfind(name_ + " ", 0) == 0;
        std::printf("  %s %s\n", name_.c_str(), isMine ? "deals with it" : "does not know it");
        return isMine ? 1 : KP_MessageHandler::handleMessage(message);
    }

private:
    const std::string name_;
};

}  // namespace

int main() {
    // Without it the engine's constructor would end the process, with no log to say why.
    const char* const directory = std::getenv("KP_INSTALLDIR");
    if (directory == nullptr || !std::filesystem::is_directory(std::string(directory) + "/logs")) {
        std::fputs("messages: KP_INSTALLDIR must name a directory with logs/ in it\n", stderr);
        return 1;
    }
    // A list does not own its handlers: they are declared before it, and end after it.
    Part filter("filter");
    Part days("days");
    Part settings("settings");
    Part clients("clients");
    char name[] = "messages";  // The log's; argv[0] can be a path.
    char* arguments[] = {name, nullptr};
    KP_EngineMgr engine(1, arguments);
    settings.addHandler(&filter);
    settings.addHandler(&days);
    engine.addHandler(&settings);
    engine.addHandler(&clients);

    for (const char* text : {"filter tcp", "clients 9", "midnight 1"}) {
        std::puts(text);
        KP_Message message(text, &engine);
        if (engine.sendMessage(&message) == 0) {
            std::puts("  nobody deals with it");
            KP_Log::ret("nobody deals with the message %s", text);
        }
    }
    return 0;
}
