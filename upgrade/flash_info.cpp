// --info: the flash identifier, its capacity, the responder and the link reached.
#include "flashhost/CFlashHost.h"
#include "upgrade/everyday_commands.h"

int ReadTargetInfo(TargetInfo& info, FailureKind& failure)
{
    if (ConnectForCommand(failure) != 0)
        return -1;
    const unsigned char* id = g_flashHost.FlashId();
    info.flashId.assign(id, id + g_flashHost.FlashIdLength());
    info.capacity = g_flashHost.FlashCapacity();
    info.responder = g_flashHost.ResponderCode();
    // The same rule as the connection's: a responder above 1 serves the flash itself.
    info.bootLoader = g_flashHost.GetUseBrom() != 0 && info.responder <= 1;
    info.rate = g_flashHost.GetBaud();
    g_flashHost.Close();
    return 0;
}
