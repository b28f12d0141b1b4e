// libkp: the root class of the library, and the identity that every class has at run time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <iosfwd>
#include <new>
#include <type_traits>

#include "kp/export.h"

class KP_String;

/// The root of the library's objects: life cycle, identity, dumping, files and sockets in fourteen
/// operations.
///
/// Classes derive from it virtually, so an object that reaches it along several paths still holds
/// one KP_Object. An operation that no class overrides does nothing and succeeds. Throughout, 0
/// means success and -1 failure.
///
/// Identity: a class has a 32-bit identifier, getClassID(), and a name; one that declares none has
/// those of its base. queryInterface() turns an object into a pointer of exactly the class of an
/// identifier; that `void*` must be cast to no other class.
///
/// Memory: objects are made by `new` or by their class's create(), and ended by release(), not by
/// `delete`, which does not look at references. A smart pointer does that with a deleter of its
/// own:
///
///     struct Releaser {
///         void operator()(KP_Object* object) const { object->release(); }
///     };
///     std::unique_ptr<KP_String, Releaser> text(new KP_String("a text"));
///
/// Variables and members end by themselves and are never released. create() is static: that of a
/// class that declares none is its base's and makes an object of the base. When memory runs out,
/// `new` of an object of these classes yields a null pointer and runs no constructor, so look at
/// what it gave; arrays of objects are the language's own, and throw.
///
/// Threads: nothing here takes a lock.
class KP_API KP_Object {
public:
    KP_Object() = default;
    /// A root has nothing to copy.
    KP_Object(const KP_Object&) = default;
    KP_Object& operator=(const KP_Object&) { return *this; }
    /// What release() runs last.
    virtual ~KP_Object();

    /// The name of the class; constant text that the caller neither changes nor frees.
    virtual char* getClassName();
    /// Stores in @p *out the object seen as the class whose identifier is @p id, its low 32 bits.
    /// No reference is taken. Returns 0, or -1 with a null @p *out when the object does not answer
    /// to that class. @p out is not null.
    virtual int queryInterface(unsigned long id, void** out);
    /// Completes construction; create() calls it after the constructor and ignores the result.
    virtual int init();
    /// Returns the object to its initial contents.
    virtual int reset();
    /// Takes over the contents of @p from, as far as the class defines it.
    virtual int copy(KP_Object* from);
    /// Ends the object: destroys it and frees its memory. Reference-counted classes give up one
    /// reference, and end with the last. The object must have come from create() or `new`.
    virtual void release();
    /// Takes one more reference; classes that do not count references do nothing.
    virtual int addRef();
    /// Writes a dump for people to @p file, or to the log when @p file is null.
    virtual int print(std::FILE* file);
    /// Stores the object in the open @p file, which stays the caller's, in the form of its class.
    virtual int write(std::FILE* file);
    /// Loads the object from @p file, likewise.
    virtual int read(std::FILE* file);
    /// Sends the object over @p socket, which is connected and blocking, in the form of its class.
    virtual int writeJ(int socket);
    /// Receives the object from @p socket, likewise.
    virtual int readJ(int socket);
    /// A hook for a host's own dumps: a stream, a level of detail, a prefix for each line.
    /// The library neither calls nor overrides it.
    virtual int localDump(std::ostream& out, int level, KP_String& prefix);

    static unsigned long getClassID() { return 0x2BE2BF78; }
    /// A new object, or null when memory runs out.
    static KP_Object* create();

    /// Memory from malloc(), for free(); null when there is none.
    static void* operator new(std::size_t size) noexcept;
    static void* operator new(std::size_t size, const std::nothrow_t&) noexcept;
    static void* operator new(std::size_t, void* place) noexcept { return place; }
    static void operator delete(void* memory) noexcept;
    static void operator delete(void* memory, const std::nothrow_t&) noexcept;
    static void operator delete(void*, void*) noexcept {}
};

namespace kp::detail {

/// A type for each function, so that two of them can be told apart by the compiler.
template <unsigned long (*)()>
struct IdentifierOf {};

/// Whether no class has its identifier from another one of them.
template <class First, class... Others>
constexpr bool areDifferent() {
    constexpr bool isAlone =
        (!std::is_same_v<IdentifierOf<&First::getClassID>, IdentifierOf<&Others::getClassID>> &&
         ...);
    if constexpr (sizeof...(Others) != 0) {
        return isAlone && areDifferent<Others...>();
    } else {
        return isAlone;
    }
}

}  // namespace kp::detail

// What a class of one's own needs beside its declarations; docs/getting-started.md has a whole one.
namespace kp {

/// Implements queryInterface() for a class that can be seen as each of @p Views, tried in order.
/// The class itself is the first of them: return kp::answerAs<Mine, KP_Object>(this, id, out). One
/// that is to be sorted names KP_Compare, too. Does not compile for a class that declares no
/// getClassID() of its own.
template <class... Views, class Self>
int answerAs(Self* self, unsigned long id, void** out) {
    static_assert(detail::areDifferent<Views...>(),
                  "each class that is answered to declares its own getClassID()");
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

}  // namespace kp
