// TEMPORARY stub, replaced by the real implementation.
#pragma GCC diagnostic ignored "-Wunused-parameter"
#include "image/FwParser.h"
FwParser::FwParser() : bValid(0), iSectionCount(0), HeaderBuf{} {}
FwParser::~FwParser() {}
void FwParser::SetFilePath(std::string path) {}
int FwParser::Parse() { return {};}
void FwParser::FreeParser() {}
unsigned short FwParser::CheckSum16(unsigned char* buf, int len) { return {};}
SectionHeader DecodeSectionHeader(const unsigned char*) { return {}; }
uint32_t ImageSectionsLength(const FwParser&) { return 0; }
