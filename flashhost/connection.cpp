// The life of a connection: synchronisation, identification, the boot-loader upload,
// speed changes, closing, and the text that wakes running firmware.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "common/link_timing.h"
#include "common/run_report.h"
#include "flashhost/CFlashHost.h"
#include "flashhost/port_messages.h"
#include "flashhost/protocol.h"

using namespace protocol;

namespace {

const unsigned int kBootRate = link_timing::kBootRate;  // boot ROM and boot-loader start here
const unsigned int kUploadRateCap = link_timing::kDefaultWorkingRate;  // the image goes over at no more than this
const unsigned int kBootLoaderAddress = 0x00010000;
const unsigned int kBootLoaderEntry = 0x00010101;  // reset vector, Thumb bit set
const unsigned int kChangeBaudMode = 0x03000000;   // top byte of the ChangeBaud word
const unsigned int kSyncAttempts = link_timing::kSyncAttempts;
const unsigned char kSyncByte = 0x55;
const unsigned int kUpgradeTextPauseUs = link_timing::kUpgradeTextPauseUs;

// Firmware running on the target makes way for an upgrade on this text, NUL included.
const unsigned char kUpgradeText[] = {'u', 'p', 'g', 'r', 'a', 'd', 'e', '\n', 0};

const char kTextOpenError[] = "Open uart error!";
const char kTextSync1Error[] = "Synchron1 error!";
const char kTextFlashIdError[] = "Get Flash ID error!";
const char kTextLoadBromError[] = "Load Brom error!";
const char kTextChangeUartError[] = "Change uart baud error!";
const char kTextSyncError[] = "Synchron error!";
const char kTextSendUpgradeError[] = "Send upgrade cmd error!";
const char kTextChangeBaudTimeout[] = "Cmd change baud waits for ack timeout or comm error!";
// When only the handshake at the new speed fails, the acknowledged ChangeBaud has
// left "Operation OK !" behind; this names what actually went wrong.
const char kTextSyncAfterBaudError[] = "Synchron error after baud change!";

}  // namespace

int CFlashHost::Synchron()
{
    unsigned char sync = kSyncByte;
    for (unsigned int attempt = 0; attempt < kSyncAttempts; ++attempt) {
        WriteLogBuf("Synchron cmd:", &sync, 1);
        if (m_comm.WriteMsg(&sync, 1) != 1)
            continue;  // nothing went out, so nothing can come back
        bool answered = m_comm.ReadMsg(m_comm.RecvBuf, 2) == 0;
        WriteLogBuf("Synchron rps:", m_comm.RecvBuf, 2);
        if (answered && m_comm.RecvBuf[0] == 'O' && m_comm.RecvBuf[1] == 'K')
            return 0;
        // Progress line: a silent target is otherwise silent for every attempt.
        run_report::Waiting("waiting for the target's answer", attempt + 1, kSyncAttempts);
    }
    return -1;
}

int CFlashHost::GetFlashId()
{
    unsigned int frameSize = BuildCommand(kGetFlashId, nullptr, 0);
    if (Exchange("GetFlashId", frameSize, kTextRead1Timeout) != 0)
        return -1;
    // The identifier field holds 20 bytes; a longer payload is cut there.
    unsigned int idLength = std::min(ReplyPayloadLength(), static_cast<unsigned int>(kFlashIdSize));
    memcpy(m_flashId, m_comm.RecvBuf + kFrameHeaderSize, idLength);
    m_flashIdLength = idLength;
    m_iResponderCode = m_comm.RecvBuf[kResponderOffset];
    return 0;
}

int CFlashHost::ChangeBaud(unsigned int word)
{
    const FrameField fields[] = {{word, 4}};
    unsigned int frameSize = BuildCommand(kChangeBaud, fields, 1);
    return Exchange("ChangeBaud", frameSize, kTextChangeBaudTimeout);
}

// Target first (acknowledged at the old speed), then the port, then a fresh
// handshake at the new speed.
int CFlashHost::ChangeUartBaud()
{
    if (ChangeBaud(kChangeBaudMode | (m_iBaud & 0x00FFFFFFu)) != 0)
        return -1;
    if (SetPortRate(m_iBaud, "speed change") != 0) {
        CommandFailed(kTextChangeUartError);
        WriteLogBuf(m_strMsg, nullptr, 0);
        return -1;
    }
    if (Synchron() != 0)
        return CommandFailed(kTextSyncAfterBaudError);
    return 0;
}

uint64_t CFlashHost::FlashCapacity() const
{
    return flash_geometry::FlashCapacityFromId(m_flashId, m_flashIdLength);
}

int CFlashHost::OpenPort(std::string& device)
{
    const int result = m_comm.Uart_Init(&device[0], kBootRate);
    if (m_comm.LoweredLatencyTimerMs() > 0 && !m_latencyNoted) {
        std::fprintf(stderr, "adapter latency timer: %d ms -> 1 ms while the port is open\n",
                     m_comm.LoweredLatencyTimerMs());
        m_latencyNoted = true;  // once per run, though every connection opens the port
    }
    if (m_comm.RateUnlisted())
        PrintRateList();
    if (m_comm.iFd < 0)
        PrintOpenFailure(device.c_str(), m_comm.iOpenErrno);
    else if (m_comm.RateRefused())
        PrintRefusedRate("open", device.c_str(), m_comm.iBaudRate);
    return result;
}

int CFlashHost::SetPortRate(unsigned int baud, const char* what)
{
    const int result = m_comm.ChangeUartBaud(baud);
    if (m_comm.RateUnlisted())
        PrintRateList();
    if (m_comm.RateRefused())
        PrintRefusedRate(what, m_comm.strPortName.c_str(), m_comm.iBaudRate);
    return result;
}

int CFlashHost::LoadBRom()
{
    // The image is only read: the port writes it out unchanged.
    unsigned char* image = const_cast<unsigned char*>(tq_BRom);
    if (WriteMemoryLen(kBootLoaderAddress, image, tq_BRom_size) != 0)
        return -1;
    return SetPC(kBootLoaderEntry);
}

// Every failed speed change ends the connection: the target and the port may now
// disagree on the speed, so nothing more can be said over this line.
int CFlashHost::ChangeUartBaudOrClose()
{
    if (ChangeUartBaud() == 0)
        return 0;
    Close();
    return -1;
}

int CFlashHost::CloseWith(const char* text)
{
    CommandFailed(text);
    Close();
    return -1;
}

// Upload path: the image goes over at the configured speed capped at 921600, the
// boot-loader starts at 115200, and only then is the configured speed set.
int CFlashHost::StartBootLoader()
{
    unsigned int configured = m_iBaud;
    m_iBaud = std::min(m_iBaud, kUploadRateCap);
    if (ChangeUartBaudOrClose() != 0)
        return -1;
    if (LoadBRom() != 0)
        return CloseWith(kTextLoadBromError);
    WriteLogBuf("Load Brom OK!", nullptr, 0);

    if (SetPortRate(kBootRate, "speed change") != 0) {
        WriteLogBuf(kTextChangeUartError, nullptr, 0);
        return CloseWith(kTextChangeUartError);
    }
    if (Synchron() != 0)
        return CloseWith(kTextSyncError);

    m_iBaud = configured;
    return GoToWorkingRate();
}

// The failure kinds of a connection: a log that cannot be started is a local
// file's failure (the text stays as it was: the log's own line was printed), a
// device that cannot be opened the port's, and anything after that means the target
// did not answer as it should.
int CFlashHost::OpenUart()
{
    if (!InitLogFile()) {
        m_failKind = FailureKind::kLocalFile;
        return -1;
    }
    if (Connect() == 0)
        return 0;
    if (m_failKind != FailureKind::kPortOpen)
        m_failKind = FailureKind::kNoAnswer;
    return -1;
}

int CFlashHost::Connect()
{
    WriteLogBuf("Open uart...", nullptr, 0);
    std::string device = m_strComNum;
    if (OpenPort(device) != 0) {
        m_comm.UART_Close();  // forget the failed descriptor
        m_strMsg = kTextOpenError;
        m_failKind = FailureKind::kPortOpen;
        WriteLogBuf(m_strMsg, nullptr, 0);
        return -1;
    }
    WriteLogBuf("Open uart OK!", nullptr, 0);

    RunLineSequence(m_link.resetSequence, "reset");  // nothing when none is set
    if (Synchron() != 0)
        return CloseWith(kTextSync1Error);
    m_iResponderCode = 0;
    m_flashIdLength = 0;
    m_ladderCount = 0;
    if (GetFlashId() != 0)
        return CloseWith(kTextFlashIdError);

    // A responder above 1 serves the flash itself; so does any target when the
    // boot-loader upload is forbidden.
    if (m_iUseBrom == 0 || m_iResponderCode > 1)
        return GoToWorkingRate();
    return StartBootLoader();
}

// Closing after a failure keeps that failure's text and kind: the speed change back
// to 115200 on a dead line fails too, but it is a consequence, not the cause.
void CFlashHost::Close()
{
    std::string kept = m_strMsg;
    const FailureKind keptKind = m_failKind;
    m_iBaud = kBootRate;
    ChangeUartBaud();  // a target that still answers goes back to 115200
    if (m_afterLinesDue)
        RunLineSequence(m_link.afterLines, "after");
    WriteLogBuf(kept, nullptr, 0);
    WriteLogBuf("Close uart!", nullptr, 0);
    m_comm.UART_Close();
    m_strMsg = kept;
    m_failKind = keptKind;
}

int CFlashHost::SendUpgradeCmd()
{
    std::string device = m_strComNum;
    if (OpenPort(device) != 0) {
        m_comm.UART_Close();
        m_strMsg = kTextOpenError;
        m_failKind = FailureKind::kPortOpen;
        return -1;
    }
    unsigned char text[sizeof kUpgradeText];
    memcpy(text, kUpgradeText, sizeof text);
    int written = m_comm.WriteMsg(text, sizeof text);
    if (written != static_cast<int>(sizeof text)) {
        // The port is closed here too: left open, its lock would make the
        // OpenUart that follows fail.
        m_comm.UART_Close();
        return CommandFailed(kTextSendUpgradeError);
    }
    m_comm.Pause(kUpgradeTextPauseUs);
    m_comm.UART_Close();
    return 0;
}

int CFlashHost::SysReboot()
{
    unsigned int frameSize = BuildCommand(kSysReboot, nullptr, 0);
    return Exchange("SysReboot", frameSize, kTextRead1Timeout);
}

int CFlashHost::ProbeSync(const std::string& device)
{
    std::string path = device;
    const int opened = m_comm.Uart_Init(&path[0], kBootRate);
    int answered = -1;
    if (opened == 0 && m_comm.iFd > 0) {
        RunLineSequence(m_link.resetSequence, "reset");
        answered = Synchron();
    }
    m_comm.UART_Close();
    return answered;
}
