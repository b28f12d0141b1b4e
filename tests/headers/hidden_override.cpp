// -Werror=overloaded-virtual
// An override with char* where the operation takes const char* only hides it.
#include <kp/kp.h>

class Names : public KP_NamedStringList {
public:
#if defined(FAULT)
    virtual int readFile(char* path, char separator, char* squeezeSet);
#else
    int readFile(const char* path, char separator, const char* squeezeSet) override;
#endif
};

class Handler : public KP_ExitHandler {
public:
    void handleExit(char* message) override;
    using KP_ExitHandler::handleExit;
};
