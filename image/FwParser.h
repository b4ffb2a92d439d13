// The image parser: walks and checks a section chain, keeps a copy of each header,
// and writes the firmware information report.
#pragma once
#include <cstdio>
#include <memory>
#include <string>

#include "image/image_format.h"

enum { kSectionRecordSize = 4096 };

class FwParser {
public:
    FwParser();
    ~FwParser();
    FwParser(const FwParser&) = delete;
    FwParser& operator=(const FwParser&) = delete;

    void SetFilePath(std::string path);
    std::string GetFilePath() const;
    int Parse();
    // Parse with the chain starting `base` bytes into the file.
    int ParseAt(uint64_t base);
    void FreeParser();
    std::string GetFwInfo() const;
    unsigned short CheckSum16(unsigned char* buf, int len);

    int bValid;
    int iSectionCount;
    std::string strFilePath;
    std::string strErrMsg;
    unsigned char HeaderBuf[kSectionHeaderSize];
    // Record i holds the 64 header bytes of the i-th section of the chain.
    std::unique_ptr<unsigned char[]> pSection[kMaxSections];

private:
    int Fail(const char* text);
    const char* CheckSection(std::FILE* fp, uint64_t offset, unsigned char* piece);
    const unsigned char* Record(int index) const;
};

extern FwParser g_fwParser;
extern FwParser g_etfFwParser;
