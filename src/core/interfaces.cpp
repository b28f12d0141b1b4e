// The interface classes that other classes mix in.
#include "kp/core/calc_hash.h"
#include "kp/core/compare.h"
#include "kp/core/processor.h"

int KP_Processor::processObject(KP_Object*) {
    return 0;
}

char* KP_Processor::getClassName() {
    return kp::className("KP_Processor");
}

int KP_Processor::queryInterface(unsigned long id, void** out) {
    return kp::answerAs<KP_Processor>(this, id, out);
}

int KP_Compare::compare(KP_Compare*, int) {
    return -1;
}

char* KP_Compare::getClassName() {
    return kp::className("KP_Compare");
}

int KP_Compare::queryInterface(unsigned long id, void** out) {
    return kp::answerAs<KP_Compare, KP_Object>(this, id, out);
}

int KP_CalcHash::calcHash(int) {
    return -1;
}

char* KP_CalcHash::getClassName() {
    return kp::className("KP_CalcHash");
}

int KP_CalcHash::queryInterface(unsigned long id, void** out) {
    return kp::answerAs<KP_CalcHash, KP_Object>(this, id, out);
}

int kp::detail::compareObjects(KP_Object* first, KP_Object* second, int mode) {
    void* left = nullptr;
    void* right = nullptr;
    if (first == nullptr || second == nullptr ||
        first->queryInterface(KP_Compare::getClassID(), &left) != 0 ||
        second->queryInterface(KP_Compare::getClassID(), &right) != 0) {
        return -1;
    }
    return static_cast<KP_Compare*>(left)->compare(static_cast<KP_Compare*>(right), mode);
}
