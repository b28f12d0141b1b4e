// libkp: what is thrown when text cannot get its memory.
#pragma once

#include "kp/export.h"

/// Thrown, by value, when an operation cannot get the memory that its result needs.
/// The one exception type that leaves the library, which catches it for good only where a header says
/// -1 or null, and where it ends the work of a thread or of a pool's task, as any other does.
class KP_API KP_NoMoreMemoryException {};
