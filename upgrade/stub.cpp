// TEMPORARY stub, replaced by the real implementation.
#pragma GCC diagnostic ignored "-Wunused-parameter"
#include "upgrade/UpGrade.h"
int32_t g_iUpdateStatus = -1;
void* UpGradeThread(void*) { return nullptr; }
unsigned char OtaBuf[kOtaHeaderSize];
unsigned int GenerateOtaBuf(unsigned int) { return 0; }
