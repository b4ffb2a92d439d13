// Runs under the adapter shim (LD_PRELOAD) for its tests: makes the calls a host
// makes on a serial adapter, one step per argument, and prints one line per result.
//   open PATH          open as the tool does, raw 8N1 at 115200
//   D1+R0, D1, R0 ...  modem lines as the tool's reset steps: both in one TIOCMSET,
//                      or one line with TIOCMBIS (1) / TIOCMBIC (0)
//   get                TIOCMGET                  -> "dtr=D rts=R"
//   sync               0x55, then up to 300 ms   -> "sync OK" / "sync none"
//   send               0x55 alone; answer: the wait alone -> "answer OK" / "answer none"
//   rate N             tcsetattr at N bit/s      -> "rate N ok" / "rate N failed: ..."
//   ports              the tool's port list      -> "port PATH VID:PID DRIVER SERIAL BYID"
//   realpath P         -> the resolved path
//   write FILE TEXT    through an ofstream       read FILE  -> its first line
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <string>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include "frontend/port_list.h"

namespace {

int g_fd = -1;

void Say(const std::string& text) { std::printf("%s\n", text.c_str()); }

void Failed(const std::string& step) { Say(step + " failed: " + std::strerror(errno)); }

speed_t SpeedConstant(unsigned long rate)
{
    switch (rate) {
    case 115200: return B115200;
    case 921600: return B921600;
    case 3000000: return B3000000;
    }
    return B0;
}

unsigned long CurrentRate()
{
    termios t;
    if (tcgetattr(g_fd, &t) != 0)
        return 0;
    for (unsigned long rate : {115200ul, 921600ul, 3000000ul})
        if (SpeedConstant(rate) == cfgetospeed(&t))
            return rate;
    return 0;
}

void Open(const std::string& path)
{
    g_fd = open(path.c_str(), O_RDWR | O_NONBLOCK | O_NOCTTY);
    termios t;
    if (g_fd < 0 || tcgetattr(g_fd, &t) != 0)
        return Failed("open");
    cfmakeraw(&t);
    t.c_cflag |= CLOCAL | CREAD;
    t.c_cc[VMIN] = 0;
    t.c_cc[VTIME] = 0;
    cfsetspeed(&t, B115200);
    if (tcsetattr(g_fd, TCSANOW, &t) != 0)
        return Failed("open");
    Say("open ok");
}

// "D1+R0": both lines in one TIOCMSET; "D1" / "R0": one line alone.
void Lines(const std::string& step)
{
    int result;
    if (step.size() == 5) {
        int bits = (step[1] == '1' ? TIOCM_DTR : 0) | (step[4] == '1' ? TIOCM_RTS : 0);
        result = ioctl(g_fd, TIOCMSET, &bits);
    } else {
        int bit = step[0] == 'D' ? TIOCM_DTR : TIOCM_RTS;
        result = ioctl(g_fd, step[1] == '1' ? TIOCMBIS : TIOCMBIC, &bit);
    }
    if (result != 0)
        Failed(step);
}

void Get()
{
    int bits = 0;
    if (ioctl(g_fd, TIOCMGET, &bits) != 0)
        return Failed("get");
    Say(std::string("dtr=") + ((bits & TIOCM_DTR) ? "1" : "0") + " rts=" + ((bits & TIOCM_RTS) ? "1" : "0"));
}

bool Send()
{
    const unsigned char byte = 0x55;
    // The shim's write shaping refuses some writes with EAGAIN, as a full FIFO would.
    while (write(g_fd, &byte, 1) != 1)
        if (errno != EAGAIN)
            return false;
    return true;
}

bool Answered()
{
    std::string answer;
    pollfd p = {g_fd, POLLIN, 0};
    char buffer[16];
    while (answer.size() < 2 && poll(&p, 1, 300) == 1) {
        ssize_t n = read(g_fd, buffer, sizeof buffer);
        if (n <= 0)
            break;
        answer.append(buffer, static_cast<size_t>(n));
    }
    return answer == "OK";
}

void Rate(const std::string& text)
{
    termios t;
    tcgetattr(g_fd, &t);
    cfsetspeed(&t, SpeedConstant(std::stoul(text)));
    if (tcsetattr(g_fd, TCSANOW, &t) != 0)
        Failed("rate " + text);
    else
        Say("rate " + text + " ok");
    Say("speed " + std::to_string(CurrentRate()));
}

void Ports()
{
    for (const SerialPortInfo& port : ListSerialPorts())
        Say("port " + port.path + " " + port.vendor + ":" + port.product + " " + port.driver + " " + port.serial +
            " " + port.byId);
}

void RealPath(const std::string& path)
{
    char resolved[PATH_MAX];
    if (!realpath(path.c_str(), resolved))
        return Failed("realpath");
    Say(resolved);
}

void WriteFile(const std::string& path, const std::string& text)
{
    std::ofstream out(path);
    out << text << "\n";
    out.close();
    if (!out)
        return Failed("write");
    Say("write ok");
}

void ReadFile(const std::string& path)
{
    std::ifstream in(path);
    std::string line;
    if (!std::getline(in, line))
        return Failed("read");
    Say(line);
}

}  // namespace

int main(int argc, char** argv)
{
    for (int i = 1; i < argc; ++i) {
        const std::string step = argv[i];
        const bool more = i + 1 < argc;
        if (step == "open" && more)
            Open(argv[++i]);
        else if (step[0] == 'D' || step[0] == 'R')
            Lines(step);
        else if (step == "get")
            Get();
        else if (step == "sync" || step == "answer") {
            if (step == "sync" && !Send())
                Failed(step);
            else
                Say(step + (Answered() ? " OK" : " none"));
        } else if (step == "send") {
            if (!Send())
                Failed(step);
        }
        else if (step == "rate" && more)
            Rate(argv[++i]);
        else if (step == "ports")
            Ports();
        else if (step == "realpath" && more)
            RealPath(argv[++i]);
        else if (step == "write" && i + 2 < argc) {
            WriteFile(argv[i + 1], argv[i + 2]);
            i += 2;
        } else if (step == "read" && more)
            ReadFile(argv[++i]);
        else {
            Say("unknown step " + step);
            return 2;
        }
        std::fflush(stdout);
    }
    return 0;
}
