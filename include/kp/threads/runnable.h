// libkp: the interface of everything that is started, stopped and waited for.
#pragma once

#include "kp/core/object.h"

class KP_Mutex;

/// Something that runs: a thread, a list of threads, a pool. The defaults do nothing and return 0.
class KP_API KP_Runnable : public virtual KP_Object {
public:
    /// Begins.
    virtual int start();
    /// Tells it to come to an end, which it may do after this has returned.
    virtual int stop();
    /// Waits until it has ended, for as long as that takes; stop() it before, or it may never end.
    /// The library's own classes use neither argument: pass nullptr and 0, as in join(nullptr, 0).
    virtual int join(KP_Mutex* mutex, int milliseconds);
    /// What was asked for last: non-zero to run, 0 to end.
    virtual int isRunning();

    char* getClassName() override;
    int queryInterface(unsigned long id, void** out) override;
    static unsigned long getClassID() { return 0x2BE2BFA3; }
};
