// kp-capture: what the library says about a transaction.
#pragma once

#include "http/transaction.h"
#include "kp/config/config_admin.h"

namespace kp::capture {

/// The library's answers about one transaction.
struct Judgement {
    bool inRanges = false;    ///< the client or the server is inside the watched ranges
    bool content = false;     ///< the answer's type is one of content
    bool validPage = false;   ///< the status is that of a delivered page
    bool entryPoint = false;  ///< content that was not reached from a page of the same site
};

/// Asks the library. "The same site" is told by the Referer containing the request's Host; a
/// request without a Referer is an entry, one with a Referer but without a Host is none.
Judgement judge(KP_ConfigAdmin& config, const Transaction& transaction);

}  // namespace kp::capture
