// The settings the front end hands the flash host, and the stop request shared by
// the console thread and the upgrade thread.
#include <atomic>

#include "flashhost/CFlashHost.h"

CFlashHost::CFlashHost() : m_cmdBuf() {}

CFlashHost::~CFlashHost() = default;

int CFlashHost::CheckComm(std::string)
{
    return 1;
}

void CFlashHost::SetComNum(std::string name)
{
    m_strComNum = name;
}

std::string CFlashHost::GetComNum()
{
    return m_strComNum;
}

void CFlashHost::SetBaud(unsigned int baud)
{
    m_iBaud = baud;
}

unsigned int CFlashHost::GetBaud()
{
    return m_iBaud;
}

void CFlashHost::SetBitUpdateChangeOnly(int flag)
{
    m_iUpdateChangeOnly = flag;
}

int CFlashHost::GetBitUpdateChangeOnly()
{
    return m_iUpdateChangeOnly;
}

void CFlashHost::SetUseBrom(int flag)
{
    m_iUseBrom = flag;
}

int CFlashHost::GetUseBrom()
{
    return m_iUseBrom;
}

void CFlashHost::SetICType(int type)
{
    m_iICType = type;
}

int CFlashHost::GetICType()
{
    return m_iICType;
}

void CFlashHost::SetIndex(int index)
{
    m_iIndex = index;
}

int CFlashHost::GetIndex()
{
    return m_iIndex;
}

namespace {

// The stop request lives outside the flash host object. The console thread sets it
// and is never joined: it may still read its last line while main returns and the
// globals are destroyed. An atomic int with static storage is initialised before
// any code runs and has no destructor, so setting it is safe at any moment, which
// a member of g_flashHost would not be.
std::atomic<int> s_stopRequest{0};

}  // namespace

void RequestUpgradeStop()
{
    s_stopRequest.store(1);
}

void CFlashHost::SetStartUpdate()
{
    s_stopRequest.store(0);
}

void CFlashHost::SetStopUpdate()
{
    RequestUpgradeStop();
}

int CFlashHost::GetUpdateStatus()
{
    return s_stopRequest.load();
}
