// TEMPORARY stub, replaced by the real implementation.
#pragma GCC diagnostic ignored "-Wunused-parameter"
#include "flashhost/CFlashHost.h"
CFlashHost::CFlashHost() {}
CFlashHost::~CFlashHost() {}
unsigned short CFlashHost::CheckSum16(unsigned char* buf, int len) { return {};}
unsigned int CFlashHost::Swap32(unsigned int value) { return {};}
unsigned short CFlashHost::Swap16(unsigned short value) { return {};}
int CFlashHost::CheckAck() { return {};}
int CFlashHost::Read_1_byte(unsigned int address, unsigned char* out) { return {};}
int CFlashHost::Read_2_byte(unsigned int address, unsigned char* out) { return {};}
int CFlashHost::Read_4_byte(unsigned int address, unsigned char* out) { return {};}
int CFlashHost::Read_8_byte(unsigned int address, unsigned char* out) { return {};}
int CFlashHost::Write_1_byte(unsigned int address, unsigned char* value) { return {};}
int CFlashHost::Write_2_byte(unsigned int address, unsigned char* value) { return {};}
int CFlashHost::Write_4_byte(unsigned int address, unsigned char* value) { return {};}
int CFlashHost::Write_8_byte(unsigned int address, unsigned char* value) { return {};}
int CFlashHost::ReadMemoryLen(unsigned int address, unsigned char* buffer, unsigned int count) { return {};}
int CFlashHost::WriteMemoryLen(unsigned int address, unsigned char* data, unsigned int count) { return {};}
int CFlashHost::SetJtag(unsigned char value) { return {};}
int CFlashHost::SetPC(unsigned int address) { return {};}
int CFlashHost::OpenUart() { return {};}
int CFlashHost::Synchron() { return {};}
int CFlashHost::GetFlashId() { return {};}
int CFlashHost::ChangeBaud(unsigned int word) { return {};}
int CFlashHost::ChangeUartBaud() { return {};}
int CFlashHost::LoadBRom() { return {};}
void CFlashHost::Close() {}
int CFlashHost::SendUpgradeCmd() { return {};}
int CFlashHost::SysReboot() { return {};}
int CFlashHost::CheckComm(std::string name) { return {};}
void CFlashHost::SetComNum(std::string name) {}
std::string CFlashHost::GetComNum() { return {};}
void CFlashHost::SetBaud(unsigned int baud) {}
unsigned int CFlashHost::GetBaud() { return {};}
void CFlashHost::SetBitUpdateChangeOnly(int flag) {}
int CFlashHost::GetBitUpdateChangeOnly() { return {};}
void CFlashHost::SetUseBrom(int flag) {}
int CFlashHost::GetUseBrom() { return {};}
void CFlashHost::SetICType(int type) {}
int CFlashHost::GetICType() { return {};}
void CFlashHost::SetIndex(int index) {}
int CFlashHost::GetIndex() { return {};}
void CFlashHost::SetStartUpdate() {}
void CFlashHost::SetStopUpdate() {}
int CFlashHost::GetUpdateStatus() { return {};}
int CFlashHost::EraseFlash(unsigned int address) { return {};}
int CFlashHost::ReadSector(unsigned int sector, unsigned char* buffer, unsigned int count) { return {};}
int CFlashHost::WriteSector(unsigned int sector, unsigned char* data, unsigned int count) { return {};}
int CFlashHost::EraseFlashLength(unsigned int address, unsigned int length) { return {};}
int CFlashHost::ReadFlashLength(unsigned int address, unsigned char* buffer, unsigned int length) { return {};}
int CFlashHost::WriteFlashLength(unsigned int address, unsigned char* data, unsigned int length) { return {};}
bool CFlashHost::InitLogFile() { return {};}
void CFlashHost::WriteLog(std::string text, unsigned int size) {}
void CFlashHost::WriteLogBuf(std::string title, unsigned char* buf, unsigned int len) {}
int CreateMultiDirectory(std::string) { return 1; }
const unsigned char tq_BRom[1] = {0};
const unsigned int tq_BRom_size = 0;
