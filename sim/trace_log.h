// The trace file: one line per event, flushed at once so that a test or a person
// watching the file sees the exchange as it happens.
//   rx <baud> <hex>                      a frame, sync byte or "upgrade" text received
//   rxdata <baud> <hex>                  the bytes of a data phase
//   tx <baud> <hex>                      bytes sent
//   ignored <host-baud> <target-baud> <count>
//   event <text>
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

namespace ksim {

// Upper-case hex pairs separated by single blanks: "42 52 4F 4D".
std::string HexBytes(const uint8_t* data, size_t n);

class TraceLog {
public:
    bool Open(const std::string& path, std::string& error);
    bool Enabled() const { return m_file != nullptr; }
    void Bytes(const char* tag, uint32_t baud, const uint8_t* data, size_t n);
    void Ignored(uint32_t hostBaud, uint32_t targetBaud, size_t count);
    void Event(const std::string& text);
    void Close() { m_file.reset(); }

private:
    void Line(const std::string& text);

    struct FileCloser {
        void operator()(FILE* f) const { std::fclose(f); }
    };
    std::unique_ptr<FILE, FileCloser> m_file;
};

}  // namespace ksim
