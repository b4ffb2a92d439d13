#include "upgrade/old_block.h"

#include <cstring>

#include "flashhost/CFlashHost.h"
#include "upgrade/write_cycle.h"

int OldBlockContent::Load(unsigned char* data)
{
    if (m_saved.empty()) {
        if (g_flashHost.ReadFlashLength(m_address, data, kUpgradeBlockSize) != 0)
            return -1;
        m_saved.assign(data, data + kUpgradeBlockSize);
        return 0;
    }
    std::memcpy(data, m_saved.data(), kUpgradeBlockSize);
    return 0;
}
