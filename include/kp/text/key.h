// libkp: a key that a class can be given, whatever else it is.
#pragma once

#include <cstdint>
#include <type_traits>

#include "kp/core/object.h"

namespace kp::detail {

/// How a value of type @p T is kept: `long` and `unsigned long` carry 32 bits on every system.
template <class T>
using Stored = std::conditional_t<std::is_same_v<T, unsigned long>, std::uint32_t,
                                  std::conditional_t<std::is_same_v<T, long>, std::int32_t, T>>;

}  // namespace kp::detail

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
    explicit KP_Key(K key = K()) : key_(static_cast<kp::detail::Stored<K>>(key)) {}

    /// The key; a `long` or `unsigned long` is cut to 32 bits.
    virtual K getKey() { return key_; }
    /// Takes over the key of @p other; returns 0, or -1 when there is no other.
    virtual int copyKey(KP_Key<K>* other) {
        if (other == nullptr) {
            return -1;
        }
        key_ = static_cast<kp::detail::Stored<K>>(other->getKey());
        return 0;
    }
    /// Returns 0.
    virtual int setKey(K key) {
        key_ = static_cast<kp::detail::Stored<K>>(key);
        return 0;
    }

    char* getClassName() override { return kp::detail::className("KP_Key"); }
    int queryInterface(unsigned long id, void** out) override {
        return kp::detail::answerAs<KP_Key, KP_Object>(this, id, out);
    }
    /// Leaves the key alone; returns 0.
    int init() override { return 0; }
    int reset() override { return 0; }
    static unsigned long getClassID() { return 0x0F53C6D2; }

private:
    kp::detail::Stored<K> key_;
};
