#include "kp/engine/engine_mgr.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "kp/core/log.h"
#include "platform/platform.h"

namespace {

constexpr int kTermination = 15;
constexpr int kInterrupt = 2;
constexpr std::size_t kNameSize = 128;

// Writes the text, the number and a line end with nothing but the stack.
template <std::size_t kSize>
void logSignal(const char (&text)[kSize], int number) {
    char line[kSize + 12];
    std::size_t length = kSize - 1;
    for (std::size_t i = 0; i < length; ++i) {
        line[i] = text[i];
    }
    char digits[10];
    int count = 0;
    for (unsigned rest = static_cast<unsigned>(number); count == 0 || rest != 0; rest /= 10) {
        digits[count++] = static_cast<char>('0' + rest % 10);
    }
    while (count > 0) {
        line[length++] = digits[--count];
    }
    line[length++] = '\n';
    kp::platform::writeSignalLog(line, length);
}

extern "C" void doNothing(int number) {
    logSignal("called the doNothing function.  signo=", number);
}

extern "C" void doQuit(int number) {
    logSignal("called the doQuit function.  signo=", number);
}

void printUsage() {
    std::fputs(
        "Usage: program [ -i ] [ -r ] [ -v ]\n"
        "       i = start in interactive debugging mode\n"
        "       r = give this process a real-time priority\n"
        "       v = verbose debuging output\n",
        stdout);
}

void deriveLogName(const char* program, char* name) {
    std::snprintf(name, kNameSize, "%s", program);
    name[std::strcspn(name, ".")] = '\0';
    if (const char* last = std::strrchr(name, '\\')) {
        std::memmove(name, last + 1, std::strlen(last + 1) + 1);
    }
}

int debugLevel(KP_NamedStringList* options, int verbose) {
    KP_String* value = options != nullptr ? options->findByName("Debug") : nullptr;
    const bool isZero = value != nullptr && std::atoi(static_cast<const char*>(*value)) == 0;
    return isZero ? 1 : verbose;
}

}  // namespace

KP_EngineMgr::KP_EngineMgr(int argc, char** argv, KP_NamedStringList* optionList,
                           KP_ExitHandler* exitHandler)
    : optionList_(optionList) {
    startTime_ = static_cast<std::int32_t>(std::time(nullptr));
    kp::platform::handleSignal(kTermination, doNothing);
    kp::platform::handleSignal(kInterrupt, doQuit);
    int verbose = 0;
    for (int i = 1; i < argc; ++i) {
        if (argv[i] == nullptr || argv[i][0] != '-' || std::strlen(argv[i]) != 2) {
            continue;
        }
        switch (argv[i][1]) {
            case '?':
            case 'h':
                printUsage();
                break;
            case 'i':
                interactive_ = 1;
                break;
            case 'v':
                verbose = 1;
                break;
            default:
                break;
        }
    }
    char name[kNameSize];
    const bool isNamed = argv != nullptr && argv[0] != nullptr;
    deriveLogName(isNamed ? argv[0] : "program.log", name);
    KP_Log::init(name, debugLevel(optionList_, verbose), exitHandler);
}

KP_EngineMgr::~KP_EngineMgr() {
    KP_Log::reset();
}

int KP_EngineMgr::input() {
    return 0;
}

long KP_EngineMgr::getStartTime() {
    return startTime_;
}

KP_Config* KP_EngineMgr::getConfigAdmin() {
    return &configAdmin_;
}

KP_Config* KP_EngineMgr::getConfig() {
    return &config_;
}

int KP_EngineMgr::init() {
    return 0;
}

char* KP_EngineMgr::getClassName() {
    return kp::className("KP_EngineMgr");
}

int KP_EngineMgr::queryInterface(unsigned long id, void** out) {
    return kp::answerAs<KP_EngineMgr, KP_MessageHandler, KP_Event, KP_Object>(this, id, out);
}

KP_EngineMgr* KP_EngineMgr::create() {
    auto* engine = new KP_EngineMgr(0, nullptr, nullptr, nullptr);
    if (engine != nullptr) {
        engine->init();
    }
    return engine;
}

void KP_EngineMgr::cleanup(int) {
    std::fputs("Quitting capture engine.", stdout);
    std::fflush(stdout);
    std::fputc('\n', stdout);
    std::exit(0);
}
