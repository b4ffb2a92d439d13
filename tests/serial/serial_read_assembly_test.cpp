// A reply that arrives in pieces while ReadMsg polls is assembled in order.
#include <thread>

#include "serial/CCommU.h"
#include "tests/support/serial_fixtures.h"

namespace {

TEST(SerialReadAssembly, PiecesArrivingDuringTheWaitMakeOneReply)
{
    struct PieceCase {
        unsigned int baud;
        std::vector<size_t> pieces;
    };
    const PieceCase cases[] = {
        {115200, {5, 7}},
        {921600, {5, 7}},
        {921600, {1, 1, 1, 9}},
    };
    for (const PieceCase& c : cases) {
        SCOPED_TRACE(c.baud);
        PtyPair pty;
        ASSERT_TRUE(pty.Ok());
        CCommU port;
        std::string path = pty.SlavePath();
        ASSERT_EQ(0, port.Uart_Init(&path[0], c.baud));

        std::vector<unsigned char> reply(12);
        for (size_t i = 0; i < reply.size(); ++i)
            reply[i] = static_cast<unsigned char>(0xA0 + i);
        std::thread sender([&pty, &reply, &c] {
            size_t at = 0;
            for (size_t piece : c.pieces) {
                usleep(30000);  // several poll intervals apart
                pty.Write({reply.begin() + at, reply.begin() + at + piece});
                at += piece;
            }
        });
        unsigned char got[12] = {};
        unsigned int result = port.ReadMsg(got, 12);
        sender.join();
        EXPECT_EQ(0u, result);
        EXPECT_EQ(reply, std::vector<unsigned char>(got, got + 12));
        port.UART_Close();
    }
}

}  // namespace
