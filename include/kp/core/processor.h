// libkp: the interface of a class that processes objects handed to it one by one.
#pragma once

#include "kp/core/object.h"

/// Processes objects; offered to host programs, the library itself has no processor.
/// As a KP_Processor an object answers to this identifier only, not to KP_Object's.
class KP_API KP_Processor : public virtual KP_Object {
public:
    /// Processes @p object, which stays the caller's; 0 or -1. The default does nothing.
    virtual int processObject(KP_Object* object);

    char* getClassName() override;
    int queryInterface(unsigned long id, void** out) override;
    static unsigned long getClassID() { return 0xE4B524B2; }
};
