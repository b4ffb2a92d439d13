// TEMPORARY stub, replaced by the real implementation.
#include "upgrade/UpGrade.h"
int FlashOperate(unsigned int, unsigned int, unsigned int, char*) { return -1; }
