// libkp: the bodies of KP_List; what it does is told in list.h.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <utility>

#include "kp/core/log.h"
#include "kp/core/no_more_memory_exception.h"
#include "kp/text/list.h"
#include "kp/tools/tools.h"
#include "kp/wire/primitives.h"

template <class T>
KP_List<T>::~KP_List() {
    options_.clear(Options::kRecycle);
    KP_List::clear();
    while (pool_ != nullptr) {
        KP_Link<T>* const link = pool_;
        pool_ = link->next_;
        link->release();
    }
}

template <class T>
KP_List<T>::KP_List(const KP_List& other) : KP_Object(other), KP_Mutex(other) {
    takeOver(other, copyLink);
}

template <class T>
KP_List<T>& KP_List<T>::operator=(const KP_List& other) {
    if (this != &other) {
        takeOver(other, copyLink);
    }
    return *this;
}

// A link of the list's own with the element of another one; null when memory runs out.
template <class T>
KP_Link<T>* KP_List<T>::copyLink(const KP_Link<T>* from) {
    auto* const link = new KP_Link<T>;
    if (link != nullptr) {
        link->element_ = from->element_;
    }
    return link;
}

// Unchains, and does not release, those elements that another chain of so many links has too: a
// list that gets a copy of itself back still needs them. Returns whether the other chain has no
// others.
template <class T>
bool KP_List<T>::keepElements(const KP_Link<T>* others, std::int32_t count) {
    const auto size = static_cast<std::size_t>(count);
    const std::unique_ptr<KP_Object*, kp::detail::FreeMemory> array(
        static_cast<KP_Object**>(std::malloc((size + 1) * sizeof(KP_Object*))));
    KP_Object** const first = array.get();
    if (first == nullptr) {
        throw KP_NoMoreMemoryException();
    }
    KP_Object** last = first;
    for (; others != nullptr; others = others->next_) {
        *last++ = others->element_;
    }
    std::sort(first, last, std::less<KP_Object*>());
    last = std::unique(first, last);
    std::ptrdiff_t kept = 0;
    for (KP_Link<T>* link = head_; link != nullptr;) {
        KP_Link<T>* const following = link->next_;
        if (std::binary_search(first, last, link->element_, std::less<KP_Object*>())) {
            ++kept;
            unchain(link);
            if (!isElement(link)) {
                link->release();
            }
        }
        link = following;
    }
    return kept >= last - first;
}

// Makes this a copy of another list. The chain is made aside, and under the lock of the other list
// alone: two lists may be copied into each other at the same time.
template <class T>
void KP_List<T>::takeOver(const KP_List& other, KP_Link<T>* (*copyOf)(const KP_Link<T>*)) {
    struct Chain {
        ~Chain() {
            for (KP_Link<T>* link = first; link != nullptr;) {
                KP_Link<T>* const following = link->next_;
                link->release();
                link = following;
            }
        }
        KP_Link<T>* first = nullptr;
        KP_Link<T>* last = nullptr;
        KP_Link<T>* current = nullptr;
        std::int32_t count = 0;
    } chain;
    Options options;
    {
        const Guard guard(const_cast<KP_List&>(other));
        for (KP_Link<T>* from = other.head_; from != nullptr; from = from->next_) {
            KP_Link<T>* const link = copyOf(from);
            if (link == nullptr) {
                throw KP_NoMoreMemoryException();
            }
            link->next_ = nullptr;
            link->previous_ = chain.last;
            (chain.last != nullptr ? chain.last->next_ : chain.first) = link;
            chain.last = link;
            ++chain.count;
            if (from == other.current_) {
                chain.current = link;
            }
        }
        options = other.options_;
    }
    const Guard guard(*this);
    const bool staysOwner = options_.has(Options::kOwner) && keepElements(chain.first, chain.count);
    KP_List::clear();
    options.clear(Options::kOwner | Options::kSelfLinked | Options::kDraining);
    if (staysOwner) {
        options.set(Options::kOwner);
    }
    options_ = options;
    head_ = std::exchange(chain.first, nullptr);
    tail_ = chain.last;
    current_ = chain.current;
    count_ = chain.count;
}

template <class T>
int KP_List<T>::hasNext() {
    const Guard guard(*this);
    return current_ != nullptr && current_->next_ != nullptr ? 1 : 0;
}

template <class T>
int KP_List<T>::hasPrevious() {
    const Guard guard(*this);
    return current_ != nullptr && current_->previous_ != nullptr ? 1 : 0;
}

template <class T>
int KP_List<T>::getCount() {
    const Guard guard(*this);
    return count_;
}

template <class T>
T* KP_List<T>::first() {
    const Guard guard(*this);
    current_ = head_;
    return getCurrent();
}

template <class T>
T* KP_List<T>::last() {
    const Guard guard(*this);
    current_ = tail_;
    return getCurrent();
}

template <class T>
T* KP_List<T>::next() {
    const Guard guard(*this);
    KP_Link<T>* const link = current_ != nullptr ? current_->next_ : nullptr;
    if (link == nullptr) {
        return nullptr;
    }
    current_ = link;
    return link->getElement();
}

template <class T>
T* KP_List<T>::previous() {
    const Guard guard(*this);
    KP_Link<T>* const link = current_ != nullptr ? current_->previous_ : nullptr;
    if (link == nullptr) {
        return nullptr;
    }
    current_ = link;
    return link->getElement();
}

template <class T>
T* KP_List<T>::getCurrent() {
    return getCurrentElement();
}

template <class T>
T* KP_List<T>::getCurrentElement() {
    const Guard guard(*this);
    return current_ != nullptr ? current_->getElement() : nullptr;
}

template <class T>
KP_Link<T>* KP_List<T>::takePooled(T* element) {
    KP_Link<T>* const link = pool_;
    if (link != nullptr) {
        pool_ = link->next_;
        link->setElement(element);
    }
    return link;
}

template <class T>
void KP_List<T>::chainLast(KP_Link<T>* link) {
    link->clearLinks();
    if (tail_ == nullptr) {
        head_ = current_ = link;
    } else {
        tail_->linkAfter(link);
    }
    tail_ = link;
    ++count_;
    options_.clear(Options::kSorted);
}

template <class T>
void KP_List<T>::chainBeforeCurrent(KP_Link<T>* link) {
    if (current_ == nullptr) {
        KP_Link<T>* const nowhere = head_ != nullptr ? current_ : link;
        chainLast(link);
        current_ = nowhere;
        return;
    }
    link->clearLinks();
    current_->linkBefore(link);
    if (current_ == head_) {
        head_ = link;
    }
    ++count_;
    options_.clear(Options::kSorted);
}

// Takes a link out of the chain; a cursor on it moves to the one that follows.
template <class T>
void KP_List<T>::unchain(KP_Link<T>* link) {
    KP_Link<T>* const before = link->previous_;
    KP_Link<T>* const after = link->next_;
    (before != nullptr ? before->next_ : head_) = after;
    (after != nullptr ? after->previous_ : tail_) = before;
    if (link == current_) {
        current_ = after;
    }
    link->next_ = nullptr;
    link->previous_ = nullptr;
    --count_;
}

template <class T>
void KP_List<T>::keepLink(KP_Link<T>* link) {
    link->next_ = pool_;  // Not linkAfter(), which would cut off the links kept so far.
    pool_ = link;
}

// Whether a link is between others that know of it. A neighbour that knows nothing of it is left
// over from elsewhere, and is forgotten when the link is chained.
template <class T>
bool KP_List<T>::isChained(KP_Link<T>* link) const {
    return link == head_ || (link->next_ != nullptr && link->next_->previous_ == link) ||
           (link->previous_ != nullptr && link->previous_->next_ == link);
}

// The link for an element that is to be added; null for one that is refused.
template <class T>
KP_Link<T>* KP_List<T>::linkFor(T* element) {
    KP_Link<T>* const link = createLink(element);
    if (link == nullptr) {
        if (options_.has(Options::kSelfLinked) &&
            (element == nullptr || kp::detail::castTo<KP_Link<T>>(element) == nullptr)) {
            KP_Log::ret("KP_List: an element that is to be its own link is none");
            return nullptr;
        }
        throw KP_NoMoreMemoryException();
    }
    if (isElement(link) && isChained(link)) {
        KP_Log::ret("KP_List: an element that is its own link is in a list already");
        return nullptr;
    }
    return link;
}

template <class T>
int KP_List<T>::append(T* element) {
    const Guard guard(*this);
    KP_Link<T>* link = options_.hasNone(Options::kSelfLinked) ? takePooled(element) : nullptr;
    if (link == nullptr) {
        link = linkFor(element);
    }
    if (link == nullptr) {
        return -1;
    }
    chainLast(link);
    return 0;
}

template <class T>
int KP_List<T>::insert(T* element) {
    const Guard guard(*this);
    KP_Link<T>* const link = linkFor(element);
    if (link == nullptr) {
        return -1;
    }
    chainBeforeCurrent(link);
    return 0;
}

template <class T>
int KP_List<T>::removeCurrent() {
    const Guard guard(*this);
    KP_Link<T>* const link = current_;
    if (link == nullptr) {
        return 0;
    }
    unchain(link);
    const bool owner = options_.has(Options::kOwner);
    // The option may have been set in a list that has made its links, as a named one always does.
    if (options_.has(Options::kSelfLinked) && isElement(link)) {
        if (owner) {
            link->release();
        }
        return 0;
    }
    T* const element = owner ? link->getElement() : nullptr;
    if (options_.has(Options::kRecycle) && options_.hasNone(Options::kDraining)) {
        keepLink(link);
    } else {
        link->release();
    }
    if (element != nullptr) {
        element->release();
    }
    return 0;
}

template <class T>
int KP_List<T>::remove(T* element) {
    const Guard guard(*this);
    const bool isHere = current_ != nullptr && getCurrentElement() == element;
    return isHere || moveTo(element) ? removeCurrent() : 0;
}

// Moves the cursor to the first link of an element, or else to the last link; whether there is one.
// The element may be gone already, so nothing is asked of it.
template <class T>
bool KP_List<T>::moveTo(T* element) {
    KP_Link<T>* link = element != nullptr ? head_ : nullptr;
    while (link != nullptr && link->getElement() != element) {
        link = link->next_;
    }
    current_ = link != nullptr ? link : tail_;
    return link != nullptr;
}

template <class T>
int KP_List<T>::sortArray(KP_Object** links, int count) {
    KP_Tools::sort(links, count, nullptr);
    return 0;
}

template <class T>
int KP_List<T>::sort() {
    const Guard guard(*this);
    if (options_.has(Options::kSorted) || count_ < 2) {
        return 0;
    }
    const auto count = static_cast<std::size_t>(count_);
    // Freed also when the comparison of a host's class throws.
    const std::unique_ptr<KP_Object*, kp::detail::FreeMemory> array(
        static_cast<KP_Object**>(std::malloc(count * sizeof(KP_Object*))));
    KP_Object** const objects = array.get();
    if (objects == nullptr) {
        return -1;
    }
    // Asking for the link is many times as fast as the language's cast from the root, and gives the
    // same unless a class is a link twice over.
    bool answersAsLink = true;
    std::size_t filled = 0;
    for (KP_Link<T>* link = head_; link != nullptr; link = link->next_) {
        objects[filled++] = link;
        answersAsLink = answersAsLink && askForLink(link) == link;
    }
    sortArray(objects, count_);
    KP_Link<T>* before = nullptr;
    for (std::size_t i = 0; i < count; ++i) {
        KP_Link<T>* const link =
            answersAsLink ? askForLink(objects[i]) : kp::detail::castTo<KP_Link<T>>(objects[i]);
        link->previous_ = before;
        (before != nullptr ? before->next_ : head_) = link;
        before = link;
    }
    before->next_ = nullptr;
    tail_ = before;
    current_ = head_;
    options_.set(Options::kSorted);
    return 0;
}

template <class T>
T* KP_List<T>::getAt(int position) {
    const Guard guard(*this);
    auto left = static_cast<std::uint32_t>(position);  // Beyond the end, too, for those below 1.
    for (T* element = first(); element != nullptr && --left != 0;) {
        element = next();
    }
    return getCurrent();
}

template <class T>
int KP_List<T>::clear() {
    const Guard guard(*this);
    // Ends the draining also when a host's own removal throws.
    struct Draining {
        explicit Draining(Options& options) : options_(options) {
            options_.set(Options::kDraining);
        }
        ~Draining() { options_.clear(Options::kDraining); }
        Options& options_;
    } const draining(options_);
    while (head_ != nullptr) {
        const std::int32_t before = count_;
        current_ = head_;
        removeCurrent();
        if (count_ == before) {  // A host's own does not remove; the list must empty all the same.
            KP_List::removeCurrent();
        }
    }
    return 0;
}

template <class T>
T* KP_List<T>::find(T* element) {
    const Guard guard(*this);
    return moveTo(element) ? element : nullptr;
}

// Looks for an element that answers to id, from the given link on; 0 or -1.
template <class T>
int KP_List<T>::findFrom(KP_Link<T>* link, unsigned long id, void** out, T** found) {
    for (; link != nullptr; link = link->next_) {
        current_ = link;
        T* const element = link->getElement();
        if (element != nullptr && element->queryInterface(id, out) == 0) {
            *found = element;
            return 0;
        }
    }
    *out = nullptr;
    return -1;
}

template <class T>
int KP_List<T>::findNextByInterface(unsigned long id, void** out, unsigned long id2) {
    T* found = nullptr;
    {
        const Guard guard(*this);
        if (findFrom(current_ != nullptr ? current_->next_ : nullptr, id, out, &found) != 0) {
            return -1;
        }
    }
    return id2 != 0 ? found->queryInterface(id2, out) : 0;
}

template <class T>
int KP_List<T>::findByInterface(unsigned long id, void** out, unsigned long id2) {
    T* found = nullptr;
    {
        const Guard guard(*this);
        if (findFrom(head_, id, out, &found) != 0) {
            return -1;
        }
    }
    return id2 != 0 ? found->queryInterface(id2, out) : 0;
}

template <class T>
KP_Link<T>* KP_List<T>::createLink(T* element) {
    if (options_.has(Options::kSelfLinked)) {
        KP_Object* const object = element;
        void* view = nullptr;
        if (object == nullptr || object->queryInterface(KP_Link<T>::getClassID(), &view) != 0) {
            return nullptr;
        }
        return kp::detail::castTo<KP_Link<T>>(object);
    }
    return new KP_Link<T>(element);
}

template <class T>
int KP_List<T>::print(std::FILE* file) {
    const Guard guard(*this);
    if (head_ != nullptr) {
        head_->printChain(file);
    }
    return 0;
}

template <class T>
int KP_List<T>::countElements() const {
    int count = 0;
    for (KP_Link<T>* link = head_; link != nullptr; link = link->next_) {
        count += link->getElement() != nullptr ? 1 : 0;
    }
    return count;
}

template <class T>
int KP_List<T>::write(std::FILE* file) {
    if (file == nullptr) {
        return -1;
    }
    const Guard guard(*this);
    std::fprintf(file, "Count{%d}\n", countElements());
    for (KP_Link<T>* link = head_; link != nullptr; link = link->next_) {
        KP_Object* const element = link->getElement();
        const int result = element != nullptr ? element->write(file) : 0;
        if (result != 0) {
            return result;
        }
    }
    return 0;
}

template <class T>
int KP_List<T>::writeJ(int socket) {
    const Guard guard(*this);
    if (writeJ_UInt16(socket, static_cast<unsigned short>(countElements())) != 0) {
        return -1;
    }
    for (KP_Link<T>* link = head_; link != nullptr; link = link->next_) {
        KP_Object* const element = link->getElement();
        if (element != nullptr && element->writeJ(socket) != 0) {
            return -1;
        }
    }
    return 0;
}
