// The three long-lived objects, defined in one translation unit so that their
// construction order is fixed: both image parsers first, then the flash host.
// They are destroyed in the reverse order after main() returns.
#include "flashhost/CFlashHost.h"
#include "image/FwParser.h"

FwParser g_fwParser;
FwParser g_etfFwParser;
CFlashHost g_flashHost;
