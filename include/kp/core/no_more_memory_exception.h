// libkp: what is thrown when a result cannot get its memory.
#pragma once

#include "kp/export.h"

/// Thrown, by value, when an operation cannot get the memory that its result needs.
///
/// It derives from no other class and carries nothing. It is the one exception of the library's
/// own. Where a header says -1 or null instead, the library catches it. What is thrown in the work
/// of a thread or of a pool's task, this or any other, ends that work and goes no further.
class KP_API KP_NoMoreMemoryException {};
