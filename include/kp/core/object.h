// libkp: the root class of the library, and the identity that every class has at run time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <iosfwd>
#include <new>

#include "kp/export.h"

class KP_String;

/// The root of every class: life cycle, identity, dumping, files and sockets in fourteen
/// operations.
///
/// Every class of the library derives from it virtually, so an object that reaches it along several
/// paths still holds one KP_Object. An operation that a class does not override does nothing and
/// succeeds. Throughout, 0 means success and -1 failure.
///
/// Identity: each class has a 32-bit identifier, getClassID(). queryInterface() turns an object
/// into a pointer of exactly the class of an identifier; that `void*` must be cast to no other
/// class.
///
/// Memory: objects are made by their class's create() or by `new`, and ended by release(). When
/// memory runs out `new` of an object of these classes yields a null pointer and runs no
/// constructor; arrays of objects are the language's own, and throw.
///
/// Threads: nothing here takes a lock.
class KP_API KP_Object {
public:
    KP_Object() = default;
    /// A root has nothing to copy.
    KP_Object(const KP_Object&) = default;
    KP_Object& operator=(const KP_Object&) { return *this; }
    virtual ~KP_Object();

    /// The name of the class; constant text that the caller neither changes nor frees.
    virtual char* getClassName();
    /// Stores in @p out, which is not null, the object seen as the class whose identifier is @p id.
    /// Returns 0, or -1 with a null @p out when the object does not answer to that class.
    virtual int queryInterface(unsigned long id, void** out);
    /// Completes construction; create() calls it after the constructor.
    virtual int init();
    /// Returns the object to its initial contents.
    virtual int reset();
    /// Takes over the contents of @p from, as far as the class defines it.
    virtual int copy(KP_Object* from);
    /// Ends the object: destroys it and frees its memory.
    /// It must have come from create() or `new`. Reference-counted classes give up one reference.
    virtual void release();
    /// Takes one more reference; classes that do not count references do nothing.
    virtual int addRef();
    /// Writes a dump for people to @p file, or to the log when @p file is null.
    virtual int print(std::FILE* file);
    /// Stores the object in @p file.
    virtual int write(std::FILE* file);
    /// Loads the object from @p file.
    virtual int read(std::FILE* file);
    /// Sends the object over the connected @p socket.
    virtual int writeJ(int socket);
    /// Receives the object from the connected @p socket.
    virtual int readJ(int socket);
    /// A hook for a host's own dumps: a stream, a level of detail, a prefix for each line.
    /// The library neither calls nor overrides it.
    virtual int localDump(std::ostream& out, int level, KP_String& prefix);

    static unsigned long getClassID() { return 0x2BE2BF78; }
    /// A new object, or null when memory runs out.
    static KP_Object* create();

    static void* operator new(std::size_t size) noexcept;
    static void* operator new(std::size_t size, const std::nothrow_t&) noexcept;
    static void* operator new(std::size_t, void* place) noexcept { return place; }
    static void operator delete(void* memory) noexcept;
    static void operator delete(void* memory, const std::nothrow_t&) noexcept;
    static void operator delete(void*, void*) noexcept {}
};

namespace kp::detail {

/// Implements queryInterface() for a class that can be seen as each of @p Views, tried in order.
template <class... Views, class Self>
int answerAs(Self* self, unsigned long id, void** out) {
    *out = nullptr;
    const auto wanted = static_cast<std::uint32_t>(id);
    const bool found = ((static_cast<std::uint32_t>(Views::getClassID()) == wanted &&
                         (*out = static_cast<Views*>(self)) != nullptr) ||
                        ...);
    return found ? 0 : -1;
}

/// Implements create(): a new @p T on which init() has run, or null when memory runs out.
template <class T>
T* createAndInit() {
    T* object = new T;
    if (object != nullptr) {
        object->init();
    }
    return object;
}

/// The constant text of a class name in the type that getClassName() returns.
inline char* className(const char* name) {
    return const_cast<char*>(name);
}

}  // namespace kp::detail
