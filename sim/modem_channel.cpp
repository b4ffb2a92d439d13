#include "sim/modem_channel.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace ksim {

namespace {

bool ParseLines(const std::string& text, ModemLines& lines)
{
    // Exactly "dtr=D rts=R".
    if (text.size() != 11 || text.compare(0, 4, "dtr=") != 0 || text.compare(5, 5, " rts=") != 0)
        return false;
    char dtr = text[4], rts = text[10];
    if ((dtr != '0' && dtr != '1') || (rts != '0' && rts != '1'))
        return false;
    lines.dtr = dtr == '1';
    lines.rts = rts == '1';
    return true;
}

void SetNonBlocking(int fd)
{
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    fcntl(fd, F_SETFD, FD_CLOEXEC);
}

}  // namespace

std::string LinesText(const ModemLines& lines)
{
    return std::string("dtr=") + (lines.dtr ? "1" : "0") + " rts=" + (lines.rts ? "1" : "0");
}

bool ModemChannel::Open(const std::string& path, std::string& error)
{
    sockaddr_un address;
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        error = "modem channel path is empty or too long for a socket: " + path;
        return false;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size());
    m_listen.Reset(socket(AF_UNIX, SOCK_STREAM, 0));
    if (!m_listen.Valid()) {
        error = std::string("cannot create the modem channel: ") + std::strerror(errno);
        return false;
    }
    SetNonBlocking(m_listen.Get());
    unlink(path.c_str());
    if (bind(m_listen.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(m_listen.Get(), 4) != 0) {
        error = "cannot listen on " + path + ": " + std::strerror(errno);
        m_listen.Reset();
        return false;
    }
    m_path = path;
    return true;
}

void ModemChannel::Close()
{
    m_clients.clear();
    m_listen.Reset();
    if (!m_path.empty()) {
        unlink(m_path.c_str());
        m_path.clear();
    }
}

void ModemChannel::AddPollFds(std::vector<pollfd>& fds) const
{
    if (!IsOpen())
        return;
    fds.push_back(pollfd{m_listen.Get(), POLLIN, 0});
    for (const Client& client : m_clients)
        fds.push_back(pollfd{client.fd.Get(), POLLIN, 0});
}

void ModemChannel::Service(const pollfd* fds, size_t count, Handler& handler)
{
    if (!IsOpen() || count == 0)
        return;
    // Entries 1.. are the clients as they were when the entries were made.
    std::vector<bool> keep(m_clients.size(), true);
    for (size_t i = 0; i + 1 < count && i < m_clients.size(); ++i)
        if (fds[i + 1].revents & (POLLIN | POLLHUP | POLLERR))
            keep[i] = ReadClient(m_clients[i], handler);
    size_t next = 0;
    for (size_t i = 0; i < m_clients.size(); ++i)
        if (keep[i])
            m_clients[next++] = std::move(m_clients[i]);
    m_clients.resize(next);
    if (fds[0].revents & POLLIN)
        Accept();
}

void ModemChannel::Accept()
{
    for (;;) {
        FdHolder fd(accept(m_listen.Get(), nullptr, nullptr));
        if (!fd.Valid())
            return;
        if (m_clients.size() >= kMaxClients)
            continue;   // closed at once: a leaking test, not a host to serve
        SetNonBlocking(fd.Get());
        m_clients.push_back(Client{std::move(fd), std::string()});
    }
}

bool ModemChannel::ReadClient(Client& client, Handler& handler)
{
    char buffer[256];
    ssize_t n = read(client.fd.Get(), buffer, sizeof buffer);
    if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR))
        return false;
    if (n < 0)
        return true;
    client.pending.append(buffer, static_cast<size_t>(n));
    size_t end;
    while ((end = client.pending.find('\n')) != std::string::npos) {
        std::string request = client.pending.substr(0, end);
        client.pending.erase(0, end + 1);
        ModemLines lines;
        std::string answer = "error\n";
        if (request == "get")
            answer = "lines " + LinesText(handler.LinesRequested(nullptr)) + "\n";
        else if (request.compare(0, 4, "set ") == 0 && ParseLines(request.substr(4), lines))
            answer = "lines " + LinesText(handler.LinesRequested(&lines)) + "\n";
        if (write(client.fd.Get(), answer.data(), answer.size()) != static_cast<ssize_t>(answer.size()))
            return false;
    }
    return client.pending.size() <= kMaxLine;
}

}  // namespace ksim
