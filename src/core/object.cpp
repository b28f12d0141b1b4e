#include "kp/core/object.h"

#include <cstdlib>

KP_Object::~KP_Object() = default;

char* KP_Object::getClassName() {
    return kp::className("KP_Object");
}

int KP_Object::queryInterface(unsigned long id, void** out) {
    return kp::answerAs<KP_Object>(this, id, out);
}

int KP_Object::init() {
    return 0;
}

int KP_Object::reset() {
    return 0;
}

int KP_Object::copy(KP_Object*) {
    return 0;
}

void KP_Object::release() {
    delete this;
}

int KP_Object::addRef() {
    return 0;
}

int KP_Object::print(std::FILE*) {
    return 0;
}

int KP_Object::write(std::FILE*) {
    return 0;
}

int KP_Object::read(std::FILE*) {
    return 0;
}

int KP_Object::writeJ(int) {
    return 0;
}

int KP_Object::readJ(int) {
    return 0;
}

int KP_Object::localDump(std::ostream&, int, KP_String&) {
    return 0;
}

KP_Object* KP_Object::create() {
    return kp::createAndInit<KP_Object>();
}

void* KP_Object::operator new(std::size_t size) noexcept {
    return std::malloc(size);
}

void* KP_Object::operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return std::malloc(size);
}

void KP_Object::operator delete(void* memory) noexcept {
    std::free(memory);
}

void KP_Object::operator delete(void* memory, const std::nothrow_t&) noexcept {
    std::free(memory);
}
