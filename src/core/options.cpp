#include "kp/core/options.h"

namespace {

KP_NamedStringList* processOptions = nullptr;

}  // namespace

KP_NamedStringList* getOptions() {
    return processOptions;
}

int setOptions(KP_NamedStringList* list) {
    processOptions = list;
    return 0;
}
