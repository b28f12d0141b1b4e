// libkp: a text that one object of a program sends to others.
#pragma once

#include "kp/core/object.h"
#include "kp/text/string.h"

/// A text with the object that sent it. The sender owns the message, which does not own its source.
///
/// It has the identity of KP_Object, and no create() of its own. Where a text is copied,
/// KP_NoMoreMemoryException is thrown when there is no memory for it.
///
/// Threads: takes no lock; a message is sent from one thread at a time.
class KP_API KP_Message : public virtual KP_Object {
public:
    /// Copies @p text (null: the empty text) and keeps @p source, which may be null.
    KP_Message(const char* text = nullptr, KP_Object* source = nullptr);
    /// A copy has the same source and a text of its own.
    KP_Message(const KP_Message&) = default;
    KP_Message& operator=(const KP_Message&) = default;
    ~KP_Message() override;

    /// Replaces the source, which stays its owner's and may be null; returns 0.
    virtual int setSource(KP_Object* source);
    /// Who sent it; null for nobody.
    virtual KP_Object* getSource();
    /// Replaces the text by a copy of @p text (null: the empty text); returns 0.
    virtual int setMessage(const char* text);
    /// The text, never null, valid until it changes or the message ends.
    virtual const char* getMessage();

private:
    KP_Object* source_;
    KP_String message_;
};
