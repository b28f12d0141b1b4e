// libkp: a doubly linked list with a cursor, a lock of its own, and options about ownership.
#pragma once

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <mutex>

#include "kp/core/no_more_memory_exception.h"
#include "kp/core/object.h"
#include "kp/text/link.h"
#include "kp/text/list_options.h"
#include "kp/threads/mutex.h"
#include "kp/tools/tools.h"
#include "kp/wire/primitives.h"

/// A list of objects that are handed out as @p T, with one cursor that all its users share.
///
/// Elements sit in links of their own, or, with setSelfLinked(1), are links themselves (as
/// KP_String is); such an element can be in one list at a time. One that does not answer to T is
/// handed out as null, which ends a walk with first() and next(); it is released only as a link.
///
/// The cursor: first(), last(), next(), previous(), getAt(), the searches, remove(), clear() and
/// sort() move it. append() leaves it alone, except that the first element of an empty list gets
/// it. removeCurrent() moves it to the element that follows; beyond the last one it is nowhere, and
/// insert() then adds at the end. A search that comes to the end leaves it on the last element.
///
/// Ownership: with setOwner(1) an element that is removed, or left over when the list is destroyed,
/// is released. Without it the list frees its links and never an element. setRecycle(1) keeps the
/// links of removed elements, but not those of clear(), for later append()s.
///
/// Memory: append() and insert() throw KP_NoMoreMemoryException when there is none for a link; the
/// list is as before, and the element is still the caller's. A list of elements that are links
/// themselves throws the same when it is given one that is none.
///
/// Threads: an operation holds the list's recursive lock from beginning to end, so any thread may
/// call any operation; but between two of them others can move the cursor. Hold the lock around a
/// walk (std::lock_guard works on a list), or walk with
///
///     for (T* element : list.elements()) ...
///
/// which holds it and leaves the cursor where it is. The option setters, getCurrentLink(),
/// setCurrentLink() and sortArray() take no lock. Nobody may use the list when it is destroyed.
template <class T>
class KP_List : public virtual KP_Object, public virtual KP_Mutex {
public:
    /// An empty list with all options off.
    KP_List() = default;
    /// Two lists cannot share links, and only their user knows whether both may own the elements.
    KP_List(const KP_List&) = delete;
    KP_List& operator=(const KP_List&) = delete;
    ~KP_List() override;

    /// Non-zero: keep the links of removed elements for later. Returns 0, as all setters do.
    virtual int setRecycle(int on) { return setOption(Options::kRecycle, on); }
    /// 1 when an element follows the cursor's, else 0.
    virtual int hasNext();
    /// 1 when an element precedes the cursor's, else 0.
    virtual int hasPrevious();
    /// The number of elements.
    virtual int getCount();
    /// Non-zero: elements are their own links. Set it while the list is empty.
    virtual int setSelfLinked(int on) { return setOption(Options::kSelfLinked, on); }
    /// Non-zero: the list owns its elements.
    virtual int setOwner(int on) { return setOption(Options::kOwner, on); }
    /// The link at the cursor; null when the cursor is nowhere.
    virtual KP_Link<T>* getCurrentLink() { return current_; }
    /// Moves the cursor to @p link, which is in this list, or null.
    virtual int setCurrentLink(KP_Link<T>* link) {
        current_ = link;
        return 0;
    }
    /// Moves the cursor to the first or last element and returns it; null when the list is empty.
    virtual T* first();
    virtual T* last();
    /// Moves the cursor on or back and returns the element; at the end null, and the cursor stays.
    virtual T* next();
    virtual T* previous();
    /// The element at the cursor; null when the cursor is nowhere.
    virtual T* getCurrent();
    virtual T* getCurrentElement();
    /// Adds @p element at the end; returns 0.
    virtual int append(T* element);
    /// Adds @p element before the cursor, which stays on its element; returns 0.
    virtual int insert(T* element);
    /// Removes the element at the cursor; does nothing when the cursor is nowhere. Returns 0.
    virtual int removeCurrent();
    /// Removes @p element, at the cursor or else where it first stands. Returns 0 in any case.
    virtual int remove(T* element);
    /// What sort() calls: puts @p count links in order by KP_Tools::sort(); returns 0.
    virtual int sortArray(KP_Object** links, int count);
    /// Sorts the list by comparing its elements (mode 0) and puts the cursor on the first. Does
    /// nothing when there are fewer than two, or when none was added since the last sort(), however
    /// they have changed. Returns 0, or -1 with the list unchanged when memory runs out.
    virtual int sort();
    /// Moves the cursor to the element at @p position, counted from 1, and returns it.
    /// The last one for a position that does not exist; null when the list is empty.
    virtual T* getAt(int position);
    /// Removes all elements; returns 0.
    virtual int clear();
    /// Moves the cursor to @p element itself and returns it; null when it is not in the list.
    virtual T* find(T* element);
    /// Finds the first element behind the cursor that answers to @p id; @p out gets that view, or
    /// the view @p id2 of the same element when id2 is not 0, which is asked for when the lock was
    /// given up. Returns 0, or -1 with a null out.
    virtual int findNextByInterface(unsigned long id, void** out, unsigned long id2);
    /// The same from the first element of the list on.
    virtual int findByInterface(unsigned long id, void** out, unsigned long id2);
    /// The link for a new element: the element itself in a self-linked list, else a new one.
    /// Null when memory runs out, or when the element is no link.
    virtual KP_Link<T>* createLink(T* element);

    char* getClassName() override { return kp::detail::className("KP_List"); }
    int queryInterface(unsigned long id, void** out) override {
        return kp::detail::answerAs<KP_List, KP_Object>(this, id, out);
    }
    /// Has every link print itself: strings that are their own links do, other links are silent.
    int print(std::FILE* file) override;
    /// Writes "Count{n}" and a line feed, then every element, back to back; links whose element is
    /// null count nothing. Returns 0, the first non-zero result of an element, or -1 for no file.
    /// A list has no counterpart that reads: read() and readJ() do nothing.
    int write(std::FILE* file) override;
    /// Sends the count as UInt16, so the low 16 bits of it, then every element that write() would
    /// write; returns 0 or -1.
    int writeJ(int socket) override;
    static unsigned long getClassID() { return 0x2BE2BF9D; }

    class Iterator;
    class Elements;
    /// The elements for a range-based for, under the lock for as long as that runs. What it visits
    /// may be anything but removed meanwhile.
    Elements elements() { return Elements(*this); }

protected:
    using Options = kp::detail::ListOptions;
    using Guard = std::lock_guard<KP_Mutex>;

    int setOption(unsigned char option, int on) {
        if (on != 0) {
            options_.set(option);
        } else {
            options_.clear(option);
        }
        return 0;
    }
    KP_Link<T>* requireLink(KP_Link<T>* link) {
        if (link == nullptr) {
            throw KP_NoMoreMemoryException();
        }
        return link;
    }
    static KP_Link<T>* askForLink(KP_Object* object) {
        void* view = nullptr;
        object->queryInterface(KP_Link<T>::getClassID(), &view);
        return static_cast<KP_Link<T>*>(view);
    }
    KP_Link<T>* takePooled(T* element);
    void chainLast(KP_Link<T>* link);
    void chainBeforeCurrent(KP_Link<T>* link);
    void unchain(KP_Link<T>* link);
    void keepLink(KP_Link<T>* link);
    int findFrom(T* element, unsigned long id, void** out, T** found);
    int countElements() const;

    KP_Link<T>* head_ = nullptr;
    KP_Link<T>* tail_ = nullptr;
    KP_Link<T>* current_ = nullptr;
    std::int32_t count_ = 0;
    KP_Link<T>* pool_ = nullptr;
    Options options_;
};

/// Walks the elements of a list from first to last.
template <class T>
class KP_List<T>::Iterator {
public:
    /// What the standard library asks of an iterator.
    using iterator_category = std::input_iterator_tag;
    using value_type = T*;
    using difference_type = std::ptrdiff_t;
    using pointer = T**;
    using reference = T*;

    /// Stands on a link; null is the end. Its element is null when it is none of the list's class.
    explicit Iterator(KP_Link<T>* link) : link_(link) {}
    T* operator*() const { return link_->getElement(); }
    Iterator& operator++() {
        link_ = link_->getNext();
        return *this;
    }
    bool operator==(const Iterator& other) const { return link_ == other.link_; }
    bool operator!=(const Iterator& other) const { return link_ != other.link_; }

private:
    KP_Link<T>* link_;
};

/// The elements of a list, locked for as long as this lives.
template <class T>
class KP_List<T>::Elements {
public:
    /// Locks the list.
    explicit Elements(KP_List& list) : list_(list), guard_(list) {}
    /// The first element, and the place behind the last one.
    Iterator begin() const { return Iterator(list_.head_); }
    Iterator end() const { return Iterator(nullptr); }

private:
    KP_List& list_;
    std::unique_lock<KP_Mutex> guard_;
};

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

template <class T>
int KP_List<T>::append(T* element) {
    const Guard guard(*this);
    KP_Link<T>* link = options_.hasNone(Options::kSelfLinked) ? takePooled(element) : nullptr;
    if (link == nullptr) {
        link = requireLink(createLink(element));
    }
    chainLast(link);
    return 0;
}

template <class T>
int KP_List<T>::insert(T* element) {
    const Guard guard(*this);
    chainBeforeCurrent(requireLink(createLink(element)));
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
    if (options_.has(Options::kSelfLinked)) {
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
    if (current_ == nullptr || getCurrentElement() != element) {
        T* candidate = first();
        while (candidate != nullptr && candidate != element) {
            candidate = next();
        }
        if (candidate == nullptr) {
            return 0;
        }
    }
    return removeCurrent();
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
    T* candidate = first();
    while (candidate != nullptr && candidate != element) {
        candidate = next();
    }
    return candidate;
}

// Looks for an element that answers to id, from the given one on; 0 or -1.
template <class T>
int KP_List<T>::findFrom(T* element, unsigned long id, void** out, T** found) {
    for (; element != nullptr; element = next()) {
        if (element->queryInterface(id, out) == 0) {
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
        if (findFrom(next(), id, out, &found) != 0) {
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
        if (findFrom(first(), id, out, &found) != 0) {
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

// Lists of anything are in the library itself.
extern template class KP_API KP_Link<KP_Object>;
extern template class KP_API KP_List<KP_Object>;
