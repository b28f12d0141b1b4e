// libkp: what is thrown when text cannot get its memory.
#pragma once

#include "kp/export.h"

/// Thrown, by value, when an operation cannot get the memory that its result needs.
/// The one exception type that leaves the library; nothing in the library catches it.
class KP_API KP_NoMoreMemoryException {};
