// Reading keyed text files, for readers inside the library that must know what was refused.
#pragma once

#include "kp/tools/tools.h"

namespace kp::detail {

/// KP_Tools::readConfig() that also tells the first key whose value was too long to be kept, or
/// null.
const char* readKeyedFile(std::FILE* f, KP_Tools::Configuration* table, void* userData);

}  // namespace kp::detail
