// Reading keyed text files, for readers inside the library that must know what was refused.
#pragma once

#include "kp/tools/tools.h"

namespace kp::detail {

/// KP_Tools::readConfig() that also tells the first key whose value was too long to be kept, or
/// null.
const char* readKeyedFile(std::FILE* f, KP_Tools::Configuration* table, void* userData);

/// Puts a question mark in the place of each byte of @p text that is neither printable ASCII nor a
/// tab, and returns the text. For what is refused and quoted in the log, which people read at a
/// terminal.
inline const char* makePrintable(char* text) {
    for (char* c = text; *c != '\0'; ++c) {
        if ((*c < 0x20 && *c != '\t') || *c > 0x7E) {
            *c = '?';
        }
    }
    return text;
}

}  // namespace kp::detail
