// The channel that carries the host's modem line changes to the simulator, since a
// pseudo-terminal has no modem lines. The simulator listens on a Unix stream socket;
// the adapter shim of the end-to-end tests (tests/e2e/adapter_shim.c) connects to it
// and turns the host's TIOCMSET/TIOCMBIS/TIOCMBIC calls into requests.
//
// Requests and answers are text lines:
//   "get\n"                ->  "lines dtr=D rts=R\n"   the lines as they stand
//   "set dtr=D rts=R\n"    ->  "lines dtr=D rts=R\n"   once the change is in line
//   anything else          ->  "error\n"
// D and R are 0 or 1, 1 meaning asserted (the TIOCM bit set). The answer to "set"
// comes only after every byte the host wrote before its request has been taken from
// the pty and queued ahead of the change, so bytes written after the answer always
// meet the new line state.
#pragma once
#include <cstddef>
#include <poll.h>
#include <string>
#include <vector>

#include "sim/board_wiring.h"
#include "sim/fd_holder.h"

namespace ksim {

class ModemChannel {
public:
    class Handler {
    public:
        // `requested` is null for "get". Returns the lines in force afterwards.
        virtual ModemLines LinesRequested(const ModemLines* requested) = 0;

    protected:
        ~Handler() = default;
    };

    ModemChannel() = default;
    ~ModemChannel() { Close(); }
    ModemChannel(const ModemChannel&) = delete;
    ModemChannel& operator=(const ModemChannel&) = delete;

    // Listens on `path` (a stale socket there is replaced).
    bool Open(const std::string& path, std::string& error);
    // Stops listening and removes the socket file.
    void Close();
    bool IsOpen() const { return m_listen.Valid(); }

    // Appends the descriptors to wait on; Service takes the same entries back.
    void AddPollFds(std::vector<pollfd>& fds) const;
    void Service(const pollfd* fds, size_t count, Handler& handler);

private:
    struct Client {
        FdHolder fd;
        std::string pending;   // received, not yet a whole line
    };
    static constexpr size_t kMaxClients = 16;
    static constexpr size_t kMaxLine = 64;

    // False when the client is to be dropped.
    bool ReadClient(Client& client, Handler& handler);
    void Accept();

    FdHolder m_listen;
    std::string m_path;
    std::vector<Client> m_clients;
};

// "dtr=D rts=R", the lines as the channel and the trace write them.
std::string LinesText(const ModemLines& lines);

}  // namespace ksim
