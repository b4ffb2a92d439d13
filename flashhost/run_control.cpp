// The settings the front end hands the flash host, and the stop request shared by
// the console thread and the upgrade thread.
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

void CFlashHost::SetStartUpdate()
{
    m_iUpdateStatus.store(0);
}

void CFlashHost::SetStopUpdate()
{
    m_iUpdateStatus.store(1);
}

int CFlashHost::GetUpdateStatus()
{
    return m_iUpdateStatus.load();
}
