// libkp: the process-wide list of options, where the modules of a host program find it.
#pragma once

#include "kp/export.h"

class KP_NamedStringList;

/// The list that was last given to setOptions(); null until then.
/// The library itself never reads it. Takes no lock: set it before other threads start.
KP_API KP_NamedStringList* getOptions();

/// Remembers @p list itself, without a copy and without taking ownership; null forgets the one
/// before. Returns 0.
KP_API int setOptions(KP_NamedStringList* list);
