// libkp: the interface of a class whose objects can be put in order.
#pragma once

#include "kp/core/object.h"

/// Compares an object with another one.
class KP_API KP_Compare : public virtual KP_Object {
public:
    /// 0 when equal, below 0 when this object comes first, above 0 when @p other does.
    /// @p mode chooses among the orders that a class knows; lists and KP_Tools::sort() use 0, but a
    /// KP_NamedList that sorts by names asks its links with 1.
    /// The default returns -1, and so do the library's classes for an @p other that is null or of
    /// another kind.
    virtual int compare(KP_Compare* other, int mode);

    char* getClassName() override;
    int queryInterface(unsigned long id, void** out) override;
    static unsigned long getClassID() { return 0x2BE2BF7E; }
};

namespace kp::detail {

/// Compares two arbitrary objects: @p first's compare() of @p second in @p mode.
/// -1 when one of the two does not answer to KP_Compare; compare() is not called then.
KP_API int compareObjects(KP_Object* first, KP_Object* second, int mode);

}  // namespace kp::detail
