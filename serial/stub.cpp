// TEMPORARY stub, replaced by the real implementation.
#pragma GCC diagnostic ignored "-Wunused-parameter"
#include "serial/CCommU.h"
CCommU::CCommU() {}
CCommU::~CCommU() {}
int CCommU::Uart_Init(char* path, unsigned int baud) { return {};}
int CCommU::ChangeUartBaud(unsigned int baud) { return {};}
void CCommU::set_termios(int fd, int speed) {}
int CCommU::WriteMsg(unsigned char* buf, unsigned int len) { return {};}
unsigned int CCommU::ReadMsg(unsigned char* buf, unsigned int len) { return {};}
unsigned int CCommU::ReadMsgNoLen(unsigned char* buf, unsigned int len) { return {};}
void CCommU::UART_Close() {}
const unsigned int name_arr[1] = {0};
const int speed_arr[1] = {0};
const int kRateTableSize = 0;
