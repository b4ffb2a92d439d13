#include "frontend/link_setup.h"

#include "frontend/line_sequence_text.h"

// Classic unless the fast link is asked for; then every fast-link behaviour at
// once, as --fast has always meant.
LinkProfile BuildLinkProfile(const Setting& setting)
{
    LinkProfile link;
    link.fast = setting.bFastLink != 0;
    link.sectorsPerCommand = setting.iSectorsPerCommand;
    link.lowLatency = link.fast;
    link.ratePolicy = link.fast ? LinkProfile::kRefuseUnsupported : LinkProfile::kSilentFallback;
    return link;
}

bool ApplyFirstContact(const Setting& setting, LinkProfile& link, std::string& error)
{
    if (!ParseLineSequence(setting.strResetSequence, link.resetSequence, error)) {
        error = "--reset " + std::string(setting.strResetSequence) + ": " + error;
        return false;
    }
    if (!ParseAfterAction(setting.strAfter, link, error)) {
        error = "--after " + std::string(setting.strAfter) + ": " + error;
        return false;
    }
    // The negotiation proves each rate with flash reads that wait on the line: the
    // fast link's way. Implying --fast would change more than the rate, so it is
    // asked for.
    if (setting.bAutoBaud && !setting.bFastLink) {
        error = "--auto-baud needs the fast link: add --fast (or bFastLink=1)";
        return false;
    }
    link.autoBaud = setting.bAutoBaud != 0;
    return true;
}
