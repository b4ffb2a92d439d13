#include "frontend/link_setup.h"

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
