// libkp: the link of a doubly linked chain, and how its element is seen as the class wanted.
#pragma once

#include <cstdio>
#include <type_traits>
#include <typeinfo>

#include "kp/core/compare.h"
#include "kp/core/object.h"

namespace kp::detail {

/// dynamic_cast, at next to no cost when the object is exactly a @p To. @p object is not null.
template <class To, class From>
To* castTo(From* object) {
    if (typeid(*object) == typeid(To)) {
        return static_cast<To*>(dynamic_cast<void*>(object));
    }
    return dynamic_cast<To*>(object);
}

template <class Declarer>
Declarer* declarerOf(int (Declarer::*)(unsigned long, void**));

/// What a class declares of its identity itself; where several bases could have been meant, all.
template <class T, class = void>
struct Identity {
    static constexpr bool isOwn = true;
    static constexpr bool isWhole = true;
};
template <class T>
struct Identity<T, std::void_t<decltype(declarerOf(&T::queryInterface))>> {
    using Declarer = std::remove_pointer_t<decltype(declarerOf(&T::queryInterface))>;
    static constexpr bool isOwn = std::is_same_v<Declarer, T>;
    static constexpr bool isWhole =
        isOwn || std::is_same_v<IdentifierOf<&T::getClassID>, IdentifierOf<&Declarer::getClassID>>;
};

}  // namespace kp::detail

namespace kp {

/// The object seen as a @p T; null when there is no object or it is no T. Lists hand out their
/// elements by it, and compare() finds by it what it was given.
///
/// A T with an identifier of its own is what the object answers to that identifier. A T that
/// inherits its identifier shares it with classes that are no T, so the language's own cast
/// decides; and a KP_Object is what every object is, whether it answers to the identifier or not.
/// A class declares both getClassID() and queryInterface(), or neither: the first alone does not
/// compile here, and the second alone not in kp::answerAs().
template <class T>
T* viewAs(KP_Object* object) {
    if constexpr (std::is_same_v<T, KP_Object>) {
        return object;
    } else {
        static_assert(detail::Identity<T>::isWhole,
                      "a class that declares getClassID() overrides queryInterface() as well");
        if (object == nullptr) {
            return nullptr;
        }
        if (T::getClassID() == KP_Object::getClassID()) {
            return detail::castTo<T>(object);
        }
        void* view = nullptr;
        if (object->queryInterface(T::getClassID(), &view) != 0) {
            return nullptr;
        }
        if constexpr (detail::Identity<T>::isOwn) {
            return static_cast<T*>(view);
        } else {
            return detail::castTo<T>(object);
        }
    }
}

}  // namespace kp

/// One link of a doubly linked chain: an element and the two neighbours.
///
/// The link owns neither: destroying a link leaves its element and its neighbours as they are, so
/// unlink() it first. The element is any object; it is handed out as a @p T, and as null when it is
/// none. A class can be its own link by deriving from KP_Link of itself, as KP_String does.
///
/// A copy is member-wise: it has the element and points to the neighbours of its source, which know
/// nothing of it. clearLinks() makes it a link of its own.
///
/// The identifier is the same for every T. Where a link is handed over, null means none; linking a
/// link to none or to itself is refused with -1.
///
/// Threads: takes no lock; whoever owns the chain guards it.
template <class T>
class KP_Link : public virtual KP_Object, public virtual KP_Compare {
public:
    /// A link without neighbours that carries @p element, or nothing.
    KP_Link(T* element = nullptr) : element_(element) {}
    /// A copy points to the neighbours of its source, as told above.
    KP_Link(const KP_Link&) = default;
    KP_Link& operator=(const KP_Link&) = default;
    ~KP_Link() override = default;

    /// The element as a T; null when there is none, or when it is no T.
    virtual T* getElement() { return kp::viewAs<T>(element_); }
    /// Replaces the element; the old one is left alone. Returns 0.
    virtual int setElement(KP_Object* element) {
        element_ = element;
        return 0;
    }
    /// Forgets the neighbours, which are not told. Returns 0.
    virtual int clearLinks() {
        next_ = nullptr;
        previous_ = nullptr;
        return 0;
    }
    /// The neighbour; null when there is none.
    virtual KP_Link<T>* getNext() { return next_; }
    virtual KP_Link<T>* getPrevious() { return previous_; }
    /// The element of the next link; null when there is no next link.
    virtual T* getNextElement() { return next_ != nullptr ? next_->getElement() : nullptr; }
    /// The element of the previous link; null when there is no previous link.
    virtual T* getPreviousElement() {
        return previous_ != nullptr ? previous_->getElement() : nullptr;
    }
    /// Puts @p link, which is in no chain, between this link and the one that follows. Returns 0,
    /// also when it is that one already, and nothing changes.
    virtual int linkAfter(KP_Link<T>* link) {
        if (link == nullptr || link == this) {
            return -1;
        }
        if (link != next_) {
            link->next_ = next_;
            link->previous_ = this;
            if (next_ != nullptr) {
                next_->previous_ = link;
            }
            next_ = link;
        }
        return 0;
    }
    /// Sets this side of the joint only; returns 0.
    virtual int setNext(KP_Link<T>* link) {
        next_ = link;
        return 0;
    }
    /// Puts @p link, which is in no chain, between this link and the one before. Returns 0, also
    /// when it is that one already, and nothing changes.
    virtual int linkBefore(KP_Link<T>* link) {
        if (link == nullptr || link == this) {
            return -1;
        }
        if (link != previous_) {
            link->previous_ = previous_;
            link->next_ = this;
            if (previous_ != nullptr) {
                previous_->next_ = link;
            }
            previous_ = link;
        }
        return 0;
    }
    /// Sets this side of the joint only; returns 0.
    virtual int setPrevious(KP_Link<T>* link) {
        previous_ = link;
        return 0;
    }
    /// Releases every link that follows, in order, and then this one; returns 0.
    /// Elements that are no links themselves are not released, and a link before this one is not
    /// told.
    virtual int releaseChain() {
        KP_Link<T>* link = next_;
        while (link != nullptr) {
            KP_Link<T>* const following = link->next_;
            link->release();
            link = following;
        }
        release();
        return 0;
    }
    /// Takes this link out of its chain and joins its neighbours to each other; returns 0.
    virtual int unlink() {
        if (previous_ != nullptr) {
            previous_->next_ = next_;
        }
        if (next_ != nullptr) {
            next_->previous_ = previous_;
        }
        next_ = nullptr;
        previous_ = nullptr;
        return 0;
    }
    /// Calls print() of this link and of every link that follows, in a loop, so that a long chain
    /// needs no deep stack; returns 0.
    virtual int printChain(std::FILE* file) {
        for (KP_Link<T>* link = this; link != nullptr; link = link->next_) {
            link->print(file);
        }
        return 0;
    }
    /// The number of links from this one to the end, this one included.
    virtual int countChain() {
        int count = 0;
        for (KP_Link<T>* link = this; link != nullptr; link = link->next_) {
            ++count;
        }
        return count;
    }

    char* getClassName() override { return kp::className("KP_Link"); }
    int queryInterface(unsigned long id, void** out) override {
        return kp::answerAs<KP_Link, KP_Compare, KP_Object>(this, id, out);
    }
    /// Forgets the neighbours; returns 0.
    int init() override {
        next_ = nullptr;
        previous_ = nullptr;
        return 0;
    }
    /// What the element's compare() says of the element of @p other in the same @p mode.
    /// -1 when @p other is no link of this kind, or one of the elements is missing or not
    /// comparable.
    int compare(KP_Compare* other, int mode) override {
        void* view = nullptr;
        if (other == nullptr || other->queryInterface(getClassID(), &view) != 0) {
            return -1;
        }
        // The view may be a link of another class of elements; only the cast knows.
        auto* link = kp::detail::castTo<KP_Link<T>>(other);
        return link != nullptr ? kp::detail::compareObjects(element_, link->element_, mode) : -1;
    }
    static unsigned long getClassID() { return 0x2BE2BF9B; }

protected:
    // A list reads the neighbours of its links at every step.
    template <class>
    friend class KP_List;
    template <class>
    friend class KP_NamedList;

    /// The neighbours, and the element; none of them is owned.
    KP_Link<T>* next_ = nullptr;
    KP_Link<T>* previous_ = nullptr;
    KP_Object* element_;
};
