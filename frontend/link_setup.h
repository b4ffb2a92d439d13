// The link profile of a run, from the settings record: built once by the driver
// and handed to the flash host. Seam: the first-contact keys (reset sequence,
// after action, auto-baud, rate ceiling) are read here into their profile fields.
#pragma once
#include <string>

#include "common/link_profile.h"
#include "common/setting_record.h"

LinkProfile BuildLinkProfile(const Setting& setting);

// The first-contact keys into `link`: false, with the reason in `error`, when the
// reset sequence or the after action cannot be read.
bool ApplyFirstContact(const Setting& setting, LinkProfile& link, std::string& error);
