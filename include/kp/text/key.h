// libkp: a key that a class can be given, whatever else it is.
#pragma once

#include "kp/core/object.h"

/// Gives an object one key value of type @p K.
///
/// Nothing in the library looks at keys; they are the host's. The identifier is the same for every
/// K, so whoever asks for the view must know which K it will be.
///
/// Threads: takes no lock.
template <class K>
class KP_Key : public virtual KP_Object {
public:
    /// An object with that key; without one it is K(), 0 for a number.
    explicit KP_Key(K key = K()) : key_(key) {}

    /// The key, whole: a pointer that was stored in a `long` comes back.
    virtual K getKey() { return key_; }
    /// Takes over the key of @p other; returns 0, or -1 when there is no other.
    virtual int copyKey(KP_Key<K>* other) {
        if (other == nullptr) {
            return -1;
        }
        key_ = other->getKey();
        return 0;
    }
    /// Returns 0.
    virtual int setKey(K key) {
        key_ = key;
        return 0;
    }

    char* getClassName() override { return kp::className("KP_Key"); }
    int queryInterface(unsigned long id, void** out) override {
        return kp::answerAs<KP_Key, KP_Object>(this, id, out);
    }
    /// Leaves the key alone; returns 0.
    int init() override { return 0; }
    int reset() override { return 0; }
    static unsigned long getClassID() { return 0x0F53C6D2; }

private:
    K key_;
};
