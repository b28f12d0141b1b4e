// libkp: the interface of everything that is started, stopped and waited for.
#pragma once

#include "kp/core/object.h"

class KP_Mutex;

/// Something that runs: a thread, a list of threads, a pool. The defaults do nothing and return 0.
class KP_API KP_Runnable : public virtual KP_Object {
public:
    /// Begins, or tells it to come to an end, which it may do later.
    virtual int start();
    virtual int stop();
    /// Waits until it has ended. Neither argument changes what the library's own classes do.
    virtual int join(KP_Mutex* mutex, int milliseconds);
    /// What was asked for last: to run, or to end.
    virtual int isRunning();

    char* getClassName() override;
    int queryInterface(unsigned long id, void** out) override;
    static unsigned long getClassID() { return 0x2BE2BFA3; }
};
