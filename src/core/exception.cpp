#include "kp/core/exception.h"

#include <cstdlib>
#include <cstring>

#include "kp/core/log.h"
#include "kp/tools/tools.h"

namespace {

char* copyOf(const char* text) {
    return text != nullptr ? KP_Tools::strdup(text) : nullptr;
}

const char* shown(const char* text) {
    return text != nullptr ? text : "(none)";
}

}  // namespace

KP_Exception::KP_Exception(int err, const char* text, const char* file, int line)
    : code_(err), text_(copyOf(text)), file_(copyOf(file)), line_(line) {}

KP_Exception::KP_Exception(const KP_Exception& other)
    : code_(other.code_),
      text_(copyOf(other.text_)),
      file_(copyOf(other.file_)),
      line_(other.line_) {}

KP_Exception& KP_Exception::operator=(const KP_Exception& other) {
    if (this != &other) {
        std::free(text_);
        std::free(file_);
        code_ = other.code_;
        text_ = copyOf(other.text_);
        file_ = copyOf(other.file_);
        line_ = other.line_;
    }
    return *this;
}

KP_Exception::~KP_Exception() {
    std::free(text_);
    std::free(file_);
}

int KP_Exception::print(std::FILE* file) {
    KP_Log::flog(file, "Error=%d Text=%s File=%s Line=%d\n", code_, shown(text_), shown(file_),
                 line_);
    return 0;
}

int KP_Exception::err() {
    return code_;
}
