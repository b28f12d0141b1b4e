// What a host program does first: open the log, load its configuration, ask it something.
#include <kp/kp.h>

#include <cstdio>
#include <cstring>

int main(int argc, char** argv) {
    if (argc != 2) {
        return 2;
    }
    KP_Log::init(argv[1], 0, nullptr);
    KP_Config config;
    config.setName(argv[1]);
    config.ipRanges[0] = {0x0A000001, 0x0A0000FF};
    config.numOfIPRanges = 1;
    config.save();
    KP_Log::ret("saved the configuration of %s", config.name);
    const bool right = config.isInIPRanges(0x0A000042) == 1 && config.isInIPRanges(0x0B000042) == 0;
    std::puts(right ? "as expected" : "wrong answer");
    KP_Log::reset();
    return right ? 0 : 1;
}
