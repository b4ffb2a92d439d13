#include "tests/sim/sim_wire_client.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <sstream>
#include <poll.h>
#include <termios.h>
#include <thread>
#include <unistd.h>

#include "tests/support/process.h"

namespace {

uint16_t WordSum(const Bytes& bytes)
{
    uint32_t sum = 0;
    for (size_t i = 0; i < bytes.size(); i += 2)
        sum += bytes[i] | (i + 1 < bytes.size() ? bytes[i + 1] << 8 : 0);
    return static_cast<uint16_t>(sum);
}

void PutLe(Bytes& out, uint32_t value, int size)
{
    for (int i = 0; i < size; ++i)
        out.push_back(static_cast<uint8_t>(value >> (8 * i)));
}

void PutBeAt(Bytes& out, size_t at, uint32_t value, int size)
{
    for (int i = 0; i < size; ++i)
        out[at + i] = static_cast<uint8_t>(value >> (8 * (size - 1 - i)));
}

speed_t SpeedConstant(uint32_t baud)
{
#ifdef __APPLE__
    return static_cast<speed_t>(baud);   // the constants there are the rates themselves
#else
    switch (baud) {
    case 9600: return B9600;
    case 57600: return B57600;
    case 230400: return B230400;
    case 921600: return B921600;
    default: return B115200;
    }
#endif
}

}  // namespace

Bytes CommandFrame(uint8_t opcode, const std::vector<Param>& params, const Bytes& raw)
{
    Bytes frame = {0x42, 0x52, 0x4F, 0x4D, 0x04, 0x00, 0x00, 0x00};
    uint32_t length = 1 + static_cast<uint32_t>(raw.size());
    for (const Param& p : params)
        length += static_cast<uint32_t>(p.size);
    PutLe(frame, length, 4);
    frame.push_back(opcode);
    for (const Param& p : params)
        PutLe(frame, p.value, p.size);
    frame.insert(frame.end(), raw.begin(), raw.end());
    uint16_t checksum = static_cast<uint16_t>(~WordSum(frame));
    // Now the wire order: checksum, length and parameters big-endian.
    PutBeAt(frame, 6, checksum, 2);
    PutBeAt(frame, 8, length, 4);
    size_t at = 13;
    for (const Param& p : params) {
        PutBeAt(frame, at, p.value, p.size);
        at += static_cast<size_t>(p.size);
    }
    return frame;
}

Bytes FromHex(const std::string& text)
{
    Bytes bytes;
    std::istringstream in(text);
    for (std::string pair; in >> pair;)
        bytes.push_back(static_cast<uint8_t>(std::stoul(pair, nullptr, 16)));
    return bytes;
}

std::string ToHex(const Bytes& bytes)
{
    std::string text;
    char pair[4];
    for (size_t i = 0; i < bytes.size(); ++i) {
        std::snprintf(pair, sizeof pair, i ? " %02X" : "%02X", bytes[i]);
        text += pair;
    }
    return text;
}

uint16_t DataChecksum(const Bytes& data)
{
    return static_cast<uint16_t>(~WordSum(data));
}

SimPort::SimPort(const std::string& device, uint32_t baud)
{
    m_fd = open(device.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
    if (m_fd >= 0)
        SetSpeed(baud);
}

SimPort::~SimPort()
{
    if (m_fd >= 0)
        close(m_fd);
}

void SimPort::SetSpeed(uint32_t baud)
{
    termios attributes;
    if (tcgetattr(m_fd, &attributes) != 0)
        return;
    cfmakeraw(&attributes);
    attributes.c_cc[VMIN] = 0;
    attributes.c_cc[VTIME] = 0;
    cfsetispeed(&attributes, SpeedConstant(baud));
    cfsetospeed(&attributes, SpeedConstant(baud));
    tcsetattr(m_fd, TCSANOW, &attributes);
}

void SimPort::Send(const Bytes& bytes)
{
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = write(m_fd, bytes.data() + done, bytes.size() - done);
        if (n > 0) {
            done += static_cast<size_t>(n);
            continue;
        }
        pollfd fd = {m_fd, POLLOUT, 0};
        if (poll(&fd, 1, 1000) <= 0)
            return;
    }
}

Bytes SimPort::Read(size_t count, int timeoutMs)
{
    Bytes bytes;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (bytes.size() < count) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now()).count();
        if (left <= 0)
            break;
        pollfd fd = {m_fd, POLLIN, 0};
        if (poll(&fd, 1, static_cast<int>(left)) <= 0)
            continue;
        uint8_t buffer[8192];
        ssize_t n = read(m_fd, buffer, std::min(sizeof buffer, count - bytes.size()));
        if (n <= 0)
            break;
        bytes.insert(bytes.end(), buffer, buffer + n);
    }
    return bytes;
}

SimReply SimPort::ReadReply(int timeoutMs)
{
    SimReply reply;
    reply.header = Read(12, timeoutMs);
    if (reply.header.size() < 12)
        return reply;
    const Bytes& h = reply.header;
    reply.flags = h[4];
    reply.responder = h[5];
    reply.length = static_cast<uint32_t>(h[8] << 24 | h[9] << 16 | h[10] << 8 | h[11]);
    reply.payload = Read(reply.flags & 0x01 ? 1 : reply.length, timeoutMs);
    if (reply.payload.size() != (reply.flags & 0x01 ? 1 : reply.length))
        return reply;
    if (reply.flags & 0x01)
        reply.errorType = reply.payload[0];
    reply.complete = true;
    // Check as a host does: length and checksum back to little-endian, sum to 0xFFFF.
    Bytes host = h;
    std::swap(host[6], host[7]);
    std::reverse(host.begin() + 8, host.begin() + 12);
    host.insert(host.end(), reply.payload.begin(), reply.payload.end());
    reply.checksumOk = WordSum(host) == 0xFFFF;
    return reply;
}

bool SimPort::Sync(int timeoutMs)
{
    Send({0x55});
    return Read(2, timeoutMs) == Bytes{0x4F, 0x4B};
}

Bytes BootLoaderImage(size_t size)
{
    Bytes image(size, 0);
    auto word = [&image](size_t at, uint32_t value) {
        for (int i = 0; i < 4; ++i)
            image[at + i] = static_cast<uint8_t>(value >> (8 * i));
    };
    word(0, 0x0007E000);
    word(4, 0x00010101);
    for (size_t at = 8; at < 256 && at + 4 <= size; at += 4)
        word(at, 0x00010127);
    for (size_t at = 256; at < size; ++at)
        image[at] = static_cast<uint8_t>(at * 7);
    return image;
}

SimReply WriteWithData(SimPort& port, const Bytes& command, const Bytes& data, int timeoutMs)
{
    if (!port.Exchange(command).IsAck())
        return SimReply{};
    port.Send(data);
    return port.ReadReply(timeoutMs);
}

bool WriteSectors(SimPort& port, uint32_t sector, const Bytes& data)
{
    uint32_t count = static_cast<uint32_t>(data.size() / 512);
    return WriteWithData(port, WriteSectorFrame(sector, count, DataChecksum(data)), data).IsAck();
}

Bytes ReadSectors(SimPort& port, uint32_t sector, uint32_t count)
{
    SimReply reply = port.Exchange(ReadSectorFrame(sector, count));
    return reply.IsAck() ? reply.payload : Bytes{};
}

bool UploadAndRun(SimPort& port, const Bytes& image, uint32_t pc)
{
    Bytes command = WriteMemoryFrame(0x00010000, static_cast<uint32_t>(image.size()), DataChecksum(image));
    return WriteWithData(port, command, image).IsAck() && port.Exchange(SetPcFrame(pc)).IsAck();
}

bool StartBootLoader(SimPort& port)
{
    if (!UploadAndRun(port, BootLoaderImage(), 0x00010101))
        return false;
    port.SetSpeed(115200);
    return port.Sync();
}

std::string ReadTextFile(const std::string& path)
{
    Bytes bytes = ReadFileBytes(path);
    return std::string(bytes.begin(), bytes.end());
}

bool WaitUntilGone(const std::string& path)
{
    for (int i = 0; i < 50; ++i) {
        if (access(path.c_str(), F_OK) != 0)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
}
