// libkp: a tree of objects through which messages are passed until one deals with them.
#pragma once

#include "kp/core/object.h"
#include "kp/engine/message.h"
#include "kp/text/list.h"

class KP_MessageHandler;

extern template class KP_API KP_Link<KP_MessageHandler>;
extern template class KP_API KP_List<KP_MessageHandler>;

/// Offers messages to the handlers in its list, in order, until one answers non-zero.
///
/// One thread at a time sends through a handler: two at once share one cursor, and a handler that
/// was there all the time can be left out. A host with several senders has one lock for the whole
/// tree around sendMessage(), since a branch is also used through the root.
///
/// A class that acts on messages overrides handleMessage() and returns non-zero when it has dealt
/// with one; it may call the default to pass others on. A plain handler passes everything on, so
/// handlers in lists of handlers are asked depth first. A handler needs the message only while it
/// is asked; what it wants to keep it copies.
///
/// The list refers to its handlers and never ends one; whoever owns a handler removes it first. A
/// class that overrides queryInterface() has to answer to KP_MessageHandler there: one that does
/// not is taken for the end of the list.
///
/// Threads: handlers may be added and removed at any time, by any thread. A removal that comes
/// while a message goes round can make it miss handlers, and does not wait for one that is being
/// asked: before a handler ends, see to it that nobody sends. A handler that is asked neither
/// changes the list of the one that asks nor sends through it.
class KP_API KP_MessageHandler : public virtual KP_Object {
public:
    KP_MessageHandler();
    /// A copy starts without handlers.
    KP_MessageHandler(const KP_MessageHandler& other);
    /// Leaves the target's handlers as they are.
    KP_MessageHandler& operator=(const KP_MessageHandler&) { return *this; }
    ~KP_MessageHandler() override;

    /// Deals with @p message: non-zero when it has. The default is sendMessage().
    virtual int handleMessage(KP_Message* message);
    /// Offers @p message to the handlers; returns the first non-zero answer, or 0.
    virtual int sendMessage(KP_Message* message);
    /// Adds @p handler at the end, also if it is there already, and is asked twice then; returns 0.
    /// A null is not to be added. Throws KP_NoMoreMemoryException when there is no memory for the
    /// entry.
    virtual int addHandler(KP_MessageHandler* handler);
    /// Removes one entry of @p handler, if there is one; returns 0.
    virtual int removeHandler(KP_MessageHandler* handler);

    char* getClassName() override;
    int queryInterface(unsigned long id, void** out) override;
    static unsigned long getClassID() { return 0x07DBE6C3; }

private:
    KP_List<KP_MessageHandler> handlers_;
};
