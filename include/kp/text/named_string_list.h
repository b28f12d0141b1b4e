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
/// be unique; findByName() finds the first.
///
/// The file has an entry a line: name, separator, value. Only the first separator of a line counts.
/// A '#' and what follows it on the line is a comment; lines without a separator are ignored. There
/// is no quoting: leading blanks and tabs of a value, a '#' in it, a line feed, and a separator in
/// a name do not survive the way through a file.
class KP_API KP_NamedStringList : public virtual KP_NamedList<KP_String> {
public:
    KP_NamedStringList() = default;
    ~KP_NamedStringList() override;

    /// Appends the entries of the file at @p path, in their order.
    /// Every character of @p squeezeSet (null: none) is removed from the names. A line of more than
    /// 255 characters counts as several. Returns 0, or -1 when the file cannot be opened. When
    /// memory runs out an entry can be left with a null value, which ends a walk, or
    /// KP_NoMoreMemoryException is thrown; the entries before that one are in the list then.
    virtual int readFile(const char* path, char separator, const char* squeezeSet);
    /// Writes the list to the file at @p path, whose contents it replaces.
    /// Holds the list's lock and leaves the cursor on the last entry. Entries of any length are
    /// written whole. Returns 0; -1 when the file cannot be opened, and nothing is written then, or
    /// when not all of it could be written.
    virtual int writeFile(const char* path, char separator);
};
