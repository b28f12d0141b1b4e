// libkp: the interface of a class whose objects have a place in a hash table.
#pragma once

#include "kp/core/object.h"

/// Finds the bucket of an object.
class KP_API KP_CalcHash : public virtual KP_Object {
public:
    /// The object's bucket in a table of @p buckets buckets, counted from 0. -1, which the default
    /// returns, says that the object has none.
    virtual int calcHash(int buckets);

    char* getClassName() override;
    int queryInterface(unsigned long id, void** out) override;
    static unsigned long getClassID() { return 0x2BE2BF80; }
};
