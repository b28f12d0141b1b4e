// libkp: names with values, in memory and in a text file.
#pragma once

#include "kp/text/named_list.h"
#include "kp/text/string.h"

extern template class KP_API KP_NamedLink<KP_String>;
extern template class KP_API KP_List<KP_String>;
extern template class KP_API KP_NamedList<KP_String>;

/// An ordered list of names with text values; what options are kept in.
///
/// A new list does not own its values: with setOwner(1) they are released with it. Names need not
/// be unique; findByName() finds the first. KP_NamedList shows how to walk names and values.
///
/// The file has an entry a line: name, separator, value. Only the first separator of a line counts.
/// A '#' and what follows it on the line is a comment; lines without a separator are ignored. The
/// list keeps neither, so a file that is read and written again has lost them.
///
/// There is no quoting: leading blanks and tabs of a value, a '#', a line feed, a separator in a
/// name and lines of more than 255 characters do not survive the way through a file. All other
/// blanks stay: those around a name belong to it, unless readFile() squeezes them out, and those at
/// the end of a line, a carriage return among them, belong to the value.
class KP_API KP_NamedStringList : public virtual KP_NamedList<KP_String> {
public:
    /// An empty list.
    KP_NamedStringList() = default;
    /// A copy has the same names and refers to the same values, which it does not own.
    KP_NamedStringList(const KP_NamedStringList&) = default;
    KP_NamedStringList& operator=(const KP_NamedStringList&) = default;
    ~KP_NamedStringList() override;

    /// Appends the entries of the file at @p path, in their order.
    /// @p separator is any character but NUL, '#' and a line feed. Every character of @p squeezeSet
    /// (null: none) is removed from the names. A line of more than 255 characters, without its line
    /// feed, is taken for several of 255: the end of a long value, and of a long comment, is lost,
    /// or an entry of its own if it has a separator. The list's lock is held for each entry, not in
    /// between.
    ///
    /// Returns 0, or -1 when the file cannot be opened; errno tells why. A fault while reading is
    /// taken for the end of the file. When memory runs out an entry can be left with a null value,
    /// which ends a walk, or KP_NoMoreMemoryException is thrown. What was read until then is in the
    /// list.
    virtual int readFile(const char* path, char separator, const char* squeezeSet);
    /// Writes the list to the file at @p path, whose contents it replaces.
    /// Holds the list's lock and leaves the cursor on the last entry. Entries of any length are
    /// written whole, also those that readFile() cannot read back; a null value ends the walk here,
    /// too. Returns 0; -1 when the file cannot be opened, and nothing is written then, or when not
    /// all of it could be written; errno tells why. The old contents are lost in the second case:
    /// who needs them writes another file and renames it.
    virtual int writeFile(const char* path, char separator);
};
