// libkp: a link whose element has a name.
#pragma once

#include "kp/text/link.h"
#include "kp/text/string.h"

/// A link that also carries a name. The identifier is the same for every T.
///
/// What KP_Link says of copies and threads holds; a copy has a name of its own.
template <class T>
class KP_NamedLink : public KP_Link<T> {
public:
    /// A link with an empty name and without neighbours that carries @p element, or nothing.
    explicit KP_NamedLink(T* element = nullptr) : KP_Link<T>(element) {}
    KP_NamedLink(const KP_NamedLink&) = default;
    KP_NamedLink& operator=(const KP_NamedLink&) = default;
    ~KP_NamedLink() override = default;

    /// Copies @p name, an empty one for null; returns 0. Throws KP_NoMoreMemoryException when that
    /// cannot be; the old name stays.
    virtual int setName(const char* name) {
        name_ = name;
        return 0;
    }
    /// The text of the name, valid until it changes.
    virtual const char* getName() { return name_; }
    /// The name itself: it stays the link's, and who changes it renames the link.
    virtual KP_String* getNameString() { return &name_; }

    /// With bit 0 of @p mode compares the names, as KP_String::compare() does; -1 when @p other is
    /// no named link of this kind. Else compares the elements, as KP_Link does.
    int compare(KP_Compare* other, int mode) override {
        if ((mode & 1) == 0) {
            return KP_Link<T>::compare(other, mode);
        }
        void* view = nullptr;
        if (other == nullptr || other->queryInterface(getClassID(), &view) != 0) {
            return -1;
        }
        auto* link = kp::detail::castTo<KP_NamedLink<T>>(other);
        return link != nullptr ? name_.compare(&link->name_, mode) : -1;
    }
    char* getClassName() override { return kp::className("KP_NamedLink<T>"); }
    int queryInterface(unsigned long id, void** out) override {
        return kp::answerAs<KP_NamedLink, KP_Link<T>, KP_Compare, KP_Object>(this, id, out);
    }
    static unsigned long getClassID() { return 0x2BE2BF9C; }

private:
    KP_String name_;
};
