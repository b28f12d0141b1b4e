// libkp: an error value for host programs.
#pragma once

#include <cstdio>

#include "kp/export.h"

/// An error with its code, its text and the place where it was noticed; prints itself to the log.
///
/// It derives from no other class. The library never throws it; host programs may. A text that
/// cannot be copied for want of memory is left out rather than reported: the error at hand is the
/// one that matters.
class KP_API KP_Exception {
public:
    /// @p err is the host's own code; @p file and @p line are a place in its source. Keeps private
    /// copies of @p text and @p file; either may be null.
    /// A number alone converts: `KP_Exception error = 5`.
    KP_Exception(int err = 0, const char* text = nullptr, const char* file = nullptr, int line = 0);
    /// A copy has texts of its own.
    KP_Exception(const KP_Exception& other);
    KP_Exception& operator=(const KP_Exception& other);

    /// Writes "Error=5 Text=... File=... Line=7" and a line feed to @p file, or to the log when it
    /// is null. A missing text or file is shown as "(none)". Returns 0.
    virtual int print(std::FILE* file);
    /// The error code.
    virtual int err();
    /// Frees the texts.
    virtual ~KP_Exception();

private:
    int code_;
    char* text_;
    char* file_;
    int line_;
};
