// The old content of a block that a write cycle keeps in part (the OTA area's first
// and last blocks, the ETF image's first block).
#pragma once
#include <cstdint>
#include <memory>
#include <vector>

// Reads the block from flash once, on the first attempt that manages to, and hands
// the same bytes to every later attempt. A failed attempt may already have erased
// the block; reading it again then would take the erased bytes for its old content
// and lose what it held (the OTA header, the end of the OTA area). Without a
// failure the flash is read exactly as often as before: once.
class OldBlockContent {
public:
    explicit OldBlockContent(uint32_t address) : m_address(address) {}

    // Puts the block's old content into `data` (65,536 bytes); -1 when it could not
    // be read, which fails the attempt.
    int Load(unsigned char* data);

private:
    uint32_t m_address;
    std::vector<unsigned char> m_saved;
};

using SharedOldBlock = std::shared_ptr<OldBlockContent>;
