// a class that declares getClassID() overrides queryInterface() as well
// An identifier that the class never answers to would make every element of a list null.
#include <kp/kp.h>

class Gauge : public virtual KP_Object {
public:
    static unsigned long getClassID() { return 0x10000001; }
#if !defined(FAULT)
    int queryInterface(unsigned long id, void** out) override {
        return kp::answerAs<Gauge, KP_Object>(this, id, out);
    }
#endif
};

class Plain : public Gauge {};

KP_Object* firstOf(KP_List<Gauge>& list) {
    return list.first();
}

KP_Object* firstOf(KP_List<Plain>& list) {
    return list.first();
}
