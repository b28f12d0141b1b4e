// libkp: a doubly linked list with a cursor, a lock of its own, and options about ownership.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <iterator>
#include <mutex>

#include "kp/core/object.h"
#include "kp/text/link.h"
#include "kp/text/list_options.h"
#include "kp/threads/mutex.h"

/// A list of objects that are handed out as @p T, with one cursor that all its users share.
///
/// Elements sit in links of their own, or, with setSelfLinked(1), are links themselves (as
/// KP_String is); such an element can be in one list at a time. One that does not answer to T is
/// handed out as null, which ends a walk with first() and next(); it is released only as a link.
/// find(), remove() and the searches by interface go on behind it.
///
/// The cursor: first(), last(), next(), previous(), getAt(), the searches, remove(), clear() and
/// sort() move it. append() leaves it alone, except that the first element of an empty list gets
/// it. removeCurrent() moves it to the element that follows; beyond the last one it is nowhere, and
/// insert() then adds at the end. A search that comes to the end leaves it on the last element.
///
/// Ownership: with setOwner(1) an element that is removed, or left over when the list is destroyed,
/// is released; by then the list no longer has it. Without setOwner(1) the list frees its links and
/// never an element. setRecycle(1) keeps the links of removed elements, but not those of clear(),
/// for later append()s.
///
/// Memory: append() and insert() throw KP_NoMoreMemoryException when there is none for a link; the
/// list is as before, and the element is still the caller's.
///
/// Misuse: an element that is to be its own link and is none (a KP_Link of the list's own T), or
/// that is chained already, in this list or another, is refused: -1, a line in the log, and the
/// element is still the caller's. (An element that is the only one of another list cannot be told
/// from a free one.)
///
/// Copies: a copy refers to the same elements, in links of its own, and owns none of them: it has
/// the source's order, its cursor and its way with removed links, but not its ownership, and its
/// elements are not their own links. The source must not release what the copy still refers to;
/// after setOwner(0) of the source and setOwner(1) the copy is the owner. A list of elements of its
/// own is made by appending a copy of each that elements() gives. Assignment first does
/// what clear() does, but does not release an element that the source has too; a target that owned
/// all that it now has stays the owner, so a list can be set back to a copy of itself. Either
/// throws KP_NoMoreMemoryException and leaves the target as it was.
///
/// Threads: an operation holds the list's recursive lock from beginning to end, so any thread may
/// call any operation; but between two of them others can move the cursor. Hold the lock around a
/// walk (std::lock_guard works on a list), or walk with
///
///     for (T* element : list.elements()) ...
///
/// which holds it and leaves the cursor where it is. The option setters, getCurrentLink(),
/// setCurrentLink(), sortArray() and createLink() take no lock. Nobody may use the list when it is
/// destroyed.
template <class T>
class KP_List : public virtual KP_Object, public virtual KP_Mutex {
public:
    /// An empty list with all options off.
    KP_List() = default;
    /// A copy refers to the same elements and owns none, as told above.
    KP_List(const KP_List& other);
    KP_List& operator=(const KP_List& other);
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
    /// Adds @p element at the end; returns 0, or -1 for one that is refused.
    virtual int append(T* element);
    /// Adds @p element before the cursor, which stays on its element; returns as append() does.
    virtual int insert(T* element);
    /// Removes the element at the cursor; does nothing when the cursor is nowhere. Returns 0.
    virtual int removeCurrent();
    /// Removes @p element, at the cursor or else where it first stands, also behind one that is
    /// handed out as null; a null only at the cursor. Returns 0 in any case.
    virtual int remove(T* element);
    /// What sort() calls: puts @p count links in order by KP_Tools::sort(); returns 0.
    virtual int sortArray(KP_Object** links, int count);
    /// Sorts the list by comparing its elements (mode 0) and puts the cursor on the first. Elements
    /// answer to KP_Compare for it; where one does not, the order is any. Does
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
    /// Null when memory runs out, or when the element is to be its own link and is none.
    virtual KP_Link<T>* createLink(T* element);

    char* getClassName() override { return kp::className("KP_List"); }
    int queryInterface(unsigned long id, void** out) override {
        return kp::answerAs<KP_List, KP_Object>(this, id, out);
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
    static KP_Link<T>* askForLink(KP_Object* object) {
        void* view = nullptr;
        object->queryInterface(KP_Link<T>::getClassID(), &view);
        return static_cast<KP_Link<T>*>(view);
    }
    // Whether the link is its element, which makes it one that the list has not made.
    static bool isElement(KP_Link<T>* link) {
        return link->element_ == static_cast<KP_Object*>(link);
    }
    bool moveTo(T* element);
    KP_Link<T>* linkFor(T* element);
    bool isChained(KP_Link<T>* link) const;
    static KP_Link<T>* copyLink(const KP_Link<T>* from);
    bool keepElements(const KP_Link<T>* others, std::int32_t count);
    void takeOver(const KP_List& other, KP_Link<T>* (*copyOf)(const KP_Link<T>*));
    KP_Link<T>* takePooled(T* element);
    void chainLast(KP_Link<T>* link);
    void chainBeforeCurrent(KP_Link<T>* link);
    void unchain(KP_Link<T>* link);
    void keepLink(KP_Link<T>* link);
    int findFrom(KP_Link<T>* link, unsigned long id, void** out, T** found);
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

// Lists of anything are in the library itself.
extern template class KP_API KP_Link<KP_Object>;
extern template class KP_API KP_List<KP_Object>;

#include "kp/text/list_impl.h"  // IWYU pragma: keep
