// libkp: a list whose elements have names.
#pragma once

#include <cstring>

#include "kp/text/list.h"
#include "kp/text/named_link.h"

/// A KP_List whose links carry names. Names need not be unique. Searches go byte for byte, sorting
/// by strcoll() of the current locale. Where a name is handed over, null means an empty one, unless
/// it says otherwise; the list copies it.
///
/// elements() gives no names. A walk that needs them uses the cursor, under the lock:
///
///     const std::lock_guard guard(list);
///     for (T* element = list.first(); element != nullptr; element = list.next()) {
///         ... list.getCurrentName() ... element ...
///     }
///
/// Elements always sit in links of their own; setSelfLinked(1) changes nothing here, and the log
/// says so when the first element is added. What KP_List says of cursor, ownership, memory, copies
/// and threads holds; a copy has the names as well. getCurrentNamedLink(), getCurrentName() and
/// setSortByName() take no lock.
///
/// Cost: searches by name look at one link after the other, whether the list is sorted or not.
template <class T>
class KP_NamedList : public KP_List<T> {
public:
    /// An empty list with all options off, which sorts by elements.
    KP_NamedList() = default;
    /// A copy has the same elements under the same names, and owns none, as KP_List tells.
    KP_NamedList(const KP_NamedList& other);
    KP_NamedList& operator=(const KP_NamedList& other);

    /// As the list's; with setSortByName(1) links are compared by their names.
    int sortArray(KP_Object** links, int count) override;
    /// A new link with an empty name; null when memory runs out. An override returns named links,
    /// too.
    KP_Link<T>* createLink(T* element) override;

    /// Adds @p element at the end with an empty name, also in a link that is kept from earlier;
    /// returns 0.
    int append(T* element) override;
    using KP_List<T>::insert;
    /// Adds @p element at the end under @p name; returns 0.
    virtual int append(T* element, const char* name);
    /// The link at the cursor; null when the cursor is nowhere.
    virtual KP_NamedLink<T>* getCurrentNamedLink() { return named(this->current_); }
    /// The name at the cursor, valid until its link is renamed or removed; null when the cursor is
    /// nowhere.
    virtual const char* getCurrentName();
    /// Puts @p element in the place of the one at the cursor, which is not released; the name
    /// stays. Returns 0, or -1 when the cursor is nowhere.
    virtual int setCurrent(T* element);
    /// Moves the cursor to the first element named @p name and returns it; null, with the cursor on
    /// the last element, when there is none. A null name finds the first element.
    virtual T* findByName(const char* name);
    /// The same from the element after the cursor on; a null name finds that one. A cursor that is
    /// nowhere stays there.
    virtual T* findNextByName(const char* name);
    /// The number of elements named @p name, the cursor being on the last element afterwards; of
    /// all elements for a null name, the cursor staying where it is.
    virtual int countByName(const char* name);
    /// Adds @p element before the cursor under @p name; returns 0.
    virtual int insert(T* element, const char* name);
    /// Non-zero: sort() goes by names, but a list that is sorted already stays as it is until an
    /// element is added. Returns 0.
    virtual int setSortByName(int on) {
        sortByName_ = on;
        return 0;
    }

private:
    using Guard = typename KP_List<T>::Guard;

    // Every link of this list is made by createLink(), so it is a named one.
    static KP_NamedLink<T>* named(KP_Link<T>* link) { return static_cast<KP_NamedLink<T>*>(link); }
    static bool isNamed(KP_Link<T>* link, const char* name) {
        const char* const own = named(link)->getName();
        return *own == *name && std::strcmp(own, name) == 0;
    }
    static KP_Link<T>* copyNamed(const KP_Link<T>* from);
    T* findFrom(KP_Link<T>* link, const char* name);
    void nameOrTakeBack(KP_Link<T>* link, const char* name);

    std::int32_t sortByName_ = 0;
};

namespace kp::detail {

/// The order of two entries of an array of objects, by KP_Compare in mode 1.
KP_API int compareEntriesByName(const void* first, const void* second);

}  // namespace kp::detail

// A named link with the element and the name of another one; null when memory runs out.
template <class T>
KP_Link<T>* KP_NamedList<T>::copyNamed(const KP_Link<T>* from) {
    return new KP_NamedLink<T>(*static_cast<const KP_NamedLink<T>*>(from));
}

template <class T>
KP_NamedList<T>::KP_NamedList(const KP_NamedList& other)
    : KP_Object(other), KP_Mutex(other), KP_List<T>(), sortByName_(other.sortByName_) {
    this->takeOver(other, copyNamed);
}

template <class T>
KP_NamedList<T>& KP_NamedList<T>::operator=(const KP_NamedList& other) {
    if (this != &other) {
        this->takeOver(other, copyNamed);
        sortByName_ = other.sortByName_;
    }
    return *this;
}

template <class T>
KP_Link<T>* KP_NamedList<T>::createLink(T* element) {
    if (this->options_.has(KP_List<T>::Options::kSelfLinked) && this->head_ == nullptr) {
        KP_Log::ret("KP_NamedList: elements are never their own links here");
    }
    return new KP_NamedLink<T>(element);
}

template <class T>
int KP_NamedList<T>::sortArray(KP_Object** links, int count) {
    KP_Tools::sort(links, count, sortByName_ != 0 ? kp::detail::compareEntriesByName : nullptr);
    return 0;
}

// Names a link that was just added; if there is no memory for the name, it is as if nothing had
// been added, and the element stays the caller's.
template <class T>
void KP_NamedList<T>::nameOrTakeBack(KP_Link<T>* link, const char* name) {
    try {
        named(link)->setName(name);
    } catch (...) {
        this->unchain(link);
        link->release();
        throw;
    }
}

template <class T>
int KP_NamedList<T>::append(T* element) {
    const Guard guard(*this);
    const bool kept = this->pool_ != nullptr;
    KP_List<T>::append(element);
    if (kept) {
        named(this->tail_)->setName("");  // A link that was kept from earlier has its old name.
    }
    return 0;
}

template <class T>
int KP_NamedList<T>::append(T* element, const char* name) {
    const Guard guard(*this);
    KP_Link<T>* const before = this->tail_;
    append(element);
    if (this->tail_ != before) {  // Else a host's own append() did not take it.
        nameOrTakeBack(this->tail_, name);
    }
    return 0;
}

template <class T>
int KP_NamedList<T>::insert(T* element, const char* name) {
    const Guard guard(*this);
    KP_Link<T>* const before = this->current_;
    const std::int32_t count = this->count_;
    insert(element);
    if (this->count_ > count) {  // Else a host's own insert() did not take it.
        nameOrTakeBack(before == nullptr ? this->tail_ : before->previous_, name);
    }
    return 0;
}

template <class T>
const char* KP_NamedList<T>::getCurrentName() {
    return this->current_ != nullptr ? named(this->current_)->getName() : nullptr;
}

template <class T>
int KP_NamedList<T>::setCurrent(T* element) {
    const Guard guard(*this);
    return this->current_ != nullptr ? this->current_->setElement(element) : -1;
}

// Moves the cursor to the first link of that name from the given one on, or else to the last link.
template <class T>
T* KP_NamedList<T>::findFrom(KP_Link<T>* link, const char* name) {
    for (; link != nullptr; link = link->next_) {
        if (isNamed(link, name)) {
            this->current_ = link;
            return this->getCurrent();
        }
    }
    this->current_ = this->tail_;
    return nullptr;
}

template <class T>
T* KP_NamedList<T>::findByName(const char* name) {
    const Guard guard(*this);
    return name != nullptr ? findFrom(this->head_, name) : this->first();
}

template <class T>
T* KP_NamedList<T>::findNextByName(const char* name) {
    const Guard guard(*this);
    if (name == nullptr) {
        return this->next();
    }
    return this->current_ != nullptr ? findFrom(this->current_->next_, name) : nullptr;
}

template <class T>
int KP_NamedList<T>::countByName(const char* name) {
    const Guard guard(*this);
    if (name == nullptr) {
        return this->count_;
    }
    int found = 0;
    for (KP_Link<T>* link = this->head_; link != nullptr; link = link->next_) {
        found += isNamed(link, name) ? 1 : 0;
    }
    this->current_ = this->tail_;
    return found;
}
