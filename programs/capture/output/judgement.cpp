#include "output/judgement.h"

#include <string>

#include "kp/tools/tools.h"

namespace kp::capture {

Judgement judge(KP_ConfigAdmin& config, const Transaction& transaction) {
    const char* type = transaction.contentType.c_str();
    const std::string status = transaction.status != 0 ? std::to_string(transaction.status) : "";
    std::string site = transaction.host;  // the library changes it
    Judgement result;
    result.inRanges = config.isInIPRanges(transaction.client.address) != 0 ||
                      config.isInIPRanges(transaction.server.address) != 0;
    result.content = KP_Tools::isContentMIME(type) != 0;
    result.validPage = KP_Tools::isValidPage(status.c_str()) != 0;
    // Of an answer alone nobody knows from where it was reached.
    result.entryPoint = transaction.hasRequest &&
                        KP_Tools::isEntryPoint(site.data(), transaction.referer.c_str(), type) != 0;
    return result;
}

}  // namespace kp::capture
