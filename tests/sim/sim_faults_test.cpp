// Injected faults, as a host sees them on the wire.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <unistd.h>

#include "tests/sim/sim_wire_client.h"
#include "tests/support/process.h"

namespace {

TEST(SimFaults, EachReplyFaultShowsOnTheWire)
{
    struct Case {
        const char* kind;
        void (*check)(SimPort& port, const SimReply& reply);
    } cases[] = {
        {"error2", [](SimPort&, const SimReply& r) { EXPECT_EQ(r.errorType, 2); EXPECT_TRUE(r.checksumOk); }},
        {"error5", [](SimPort&, const SimReply& r) { EXPECT_EQ(r.errorType, 5); }},
        {"error7F", [](SimPort&, const SimReply& r) { EXPECT_EQ(r.errorType, 0x7F); }},
        {"noreply", [](SimPort&, const SimReply& r) { EXPECT_TRUE(r.header.empty()); }},
        {"badsum", [](SimPort&, const SimReply& r) {
             EXPECT_TRUE(r.complete);
             EXPECT_EQ(r.flags, 0x06);
             EXPECT_EQ(r.payload.size(), 3u);
             EXPECT_FALSE(r.checksumOk);
         }},
        {"badmagic", [](SimPort&, const SimReply& r) {
             ASSERT_EQ(r.header.size(), 12u);
             EXPECT_EQ(ToHex(Bytes(r.header.begin(), r.header.begin() + 4)), "4D 4F 52 42");
         }},
        {"short", [](SimPort&, const SimReply& r) {
             EXPECT_EQ(r.length, 19u);
             EXPECT_FALSE(r.complete);   // 3 payload bytes sent, 19 promised
         }},
        {"toolong", [](SimPort& port, const SimReply& r) {
             EXPECT_EQ(r.length, 8191u);
             EXPECT_TRUE(r.IsAck());
             EXPECT_EQ(ToHex(Bytes(r.payload.begin(), r.payload.begin() + 4)), "C8 40 16 00");
             EXPECT_TRUE(port.Silent(50));
         }},
        {"bitflip", [](SimPort&, const SimReply& r) {
             EXPECT_TRUE(r.IsAck());
             EXPECT_EQ(ToHex(r.payload), "C0 40 16");
         }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.kind);
        SimProcess sim({"--fault", std::string("GetFlashId:1:") + c.kind});
        SimPort port(sim.DevicePath());
        c.check(port, port.Exchange(GetFlashIdFrame(), 500));
        // Only the first GetFlashId was meant.
        EXPECT_TRUE(port.Exchange(GetFlashIdFrame()).IsAck());
    }
}

TEST(SimFaults, WhenSelectsWhichCommandsAreHit)
{
    struct Case {
        const char* when;
        std::vector<bool> hit;   // for the 1st .. 5th GetFlashId
    } cases[] = {
        {"2", {false, true, false, false, false}},
        {"3+", {false, false, true, true, true}},
        {"every", {true, true, true, true, true}},
    };
    for (const Case& c : cases) {
        SimProcess sim({"--fault", std::string("GetFlashId:") + c.when + ":error4"});
        SimPort port(sim.DevicePath());
        for (size_t i = 0; i < c.hit.size(); ++i) {
            SimReply reply = port.Exchange(GetFlashIdFrame());
            EXPECT_EQ(reply.errorType == 4, c.hit[i]) << c.when << " command " << i + 1;
            // Other commands are neither hit nor counted.
            EXPECT_TRUE(port.Exchange(CommandFrame(0x04, {{0x20000000, 4}})).IsAck());
        }
    }
}

TEST(SimFaults, WhatMatchesByNameHexOrAny)
{
    for (const char* what : {"Read_4_byte", "0x04", "any"}) {
        SimProcess sim({"--fault", std::string(what) + ":1:error1"});
        SimPort port(sim.DevicePath());
        EXPECT_EQ(port.Exchange(CommandFrame(0x04, {{0, 4}})).errorType, 1) << what;
        EXPECT_TRUE(port.Exchange(GetFlashIdFrame()).IsAck()) << what;
    }
}

TEST(SimFaults, BaudQualifierLimitsTheFaultToThatSpeed)
{
    SimProcess sim({"--fault", "GetFlashId:every:error2@921600"});
    SimPort port(sim.DevicePath());
    EXPECT_TRUE(port.Exchange(GetFlashIdFrame()).IsAck());
    ASSERT_TRUE(port.Exchange(ChangeBaudFrame(921600)).IsAck());
    port.SetSpeed(921600);
    EXPECT_EQ(port.Exchange(GetFlashIdFrame()).errorType, 2);
    ASSERT_TRUE(port.Exchange(ChangeBaudFrame(115200)).IsAck());
    port.SetSpeed(115200);
    EXPECT_TRUE(port.Exchange(GetFlashIdFrame()).IsAck());
}

TEST(SimFaults, RefusingFaultsLeaveTheCommandUndone)
{
    SimProcess sim({"--rom-flash", "yes", "--fault", "EraseFlash:2:noreply", "--fault",
                    "ChangeBaud:1:error2"});
    SimPort port(sim.DevicePath());
    ASSERT_TRUE(WriteSectors(port, 0, Bytes(512, 0)));
    ASSERT_TRUE(port.Exchange(EraseFrame(0)).IsAck());
    ASSERT_TRUE(WriteSectors(port, 0, Bytes(512, 0)));
    EXPECT_FALSE(port.Exchange(EraseFrame(0), 300).complete);
    EXPECT_EQ(ReadSectors(port, 0, 1), Bytes(512, 0));
    // The refused speed change left the target at 115200.
    EXPECT_EQ(port.Exchange(ChangeBaudFrame(921600)).errorType, 2);
    EXPECT_TRUE(port.Sync());
}

TEST(SimFaults, TwoPhaseCommandsTakeTheFaultOnTheDataReply)
{
    struct Case {
        const char* kind;
        bool stored;
    } cases[] = {{"error2", false}, {"noreply", false}, {"badsum", true}};
    for (const Case& c : cases) {
        SimProcess sim({"--rom-flash", "yes", "--fault", std::string("WriteSector:1:") + c.kind});
        SimPort port(sim.DevicePath());
        Bytes data(512, 0x00);
        ASSERT_TRUE(port.Exchange(WriteSectorFrame(4, 1, DataChecksum(data))).IsAck()) << c.kind;
        port.Send(data);
        SimReply reply = port.ReadReply(400);
        EXPECT_FALSE(reply.IsAck()) << c.kind;
        EXPECT_EQ(ReadSectors(port, 4, 1), c.stored ? data : Bytes(512, 0xFF)) << c.kind;
    }
}

TEST(SimFaults, BitflipProgramsOneWrongBitBehindANormalAck)
{
    SimProcess sim({"--rom-flash", "yes", "--fault", "WriteSector:1:bitflip"});
    SimPort port(sim.DevicePath());
    Bytes data(1024, 0x00);
    data[700] = 0xA5;
    ASSERT_TRUE(WriteSectors(port, 0, data));
    Bytes back = ReadSectors(port, 0, 2);
    ASSERT_EQ(back.size(), 1024u);
    Bytes expected = data;
    expected[700] = 0xA4;
    EXPECT_EQ(back, expected);
}

TEST(SimFaults, VanishClosesTheDeviceAndEndsTheSimulator)
{
    TempDir dir;
    std::string link = dir.File("ttySIM");
    SimProcess sim({"--link", link, "--fault", "any:2:vanish"});
    SimPort port(sim.DevicePath());
    ASSERT_TRUE(port.Exchange(GetFlashIdFrame()).IsAck());
    port.Send(GetFlashIdFrame());
    EXPECT_TRUE(port.ReadReply(500).header.empty());
    bool gone = false;
    for (int i = 0; i < 50 && !gone; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        gone = access(link.c_str(), F_OK) != 0;
    }
    EXPECT_TRUE(gone);
}

}  // namespace
