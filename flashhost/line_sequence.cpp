// The modem-line sequences: the reset that brings the target into its boot ROM at
// the start of a connection, and the action after a successful run (SysReboot, or
// lines that restart the new firmware).
#include <cstdio>

#include "flashhost/CFlashHost.h"

namespace {

const char kTextNoModemLines[] = "warning: %s has no modem lines (DTR/RTS); the %s sequence was not run\n";
const char kTextRebootNotAcked[] = "warning: the target did not acknowledge the reboot command (%s)\n";

}  // namespace

// A port without modem lines fails the first step; it is said once per run on the
// error stream and the connection goes on as it would without the sequence.
int CFlashHost::RunLineSequence(const LineSequence& sequence, const char* what)
{
    for (unsigned int i = 0; i < sequence.count && i < LineSequence::kMaxSteps; ++i) {
        const LineStep& step = sequence.steps[i];
        if (step.kind == LineStep::kWait) {
            m_comm.Pause(step.waitMs * 1000u);
            continue;
        }
        if (m_comm.SetModemLines(step.dtr, step.rts) != 0) {
            if (!m_linesWarned)
                std::fprintf(stderr, kTextNoModemLines, m_comm.strPortName.c_str(), what);
            m_linesWarned = true;
            WriteLogBuf(std::string("Modem lines refused: ") + what, nullptr, 0);
            return -1;
        }
    }
    if (sequence.count > 0)
        WriteLogBuf(std::string("Modem lines: ") + what + " sequence done", nullptr, 0);
    return 0;
}

// What follows a successful run never turns it into a failure: a target that does
// not acknowledge the reboot gets the classic close and a warning.
void CFlashHost::CloseAfterSuccess()
{
    if (m_link.after == LinkProfile::kAfterReboot) {
        const std::string kept = m_strMsg;
        if (SysReboot() == 0) {
            // The target restarts at the boot rate by itself: no speed change back.
            WriteLogBuf("Reboot sent", nullptr, 0);
            WriteLogBuf("Close uart!", nullptr, 0);
            m_comm.UART_Close();
            m_strMsg = kept;
            m_failKind = FailureKind::kNone;
            return;
        }
        std::fprintf(stderr, kTextRebootNotAcked, m_strMsg.c_str());
        m_strMsg = kept;
        m_failKind = FailureKind::kNone;
        Close();
        return;
    }
    m_afterLinesDue = m_link.after == LinkProfile::kAfterLines;
    Close();
    m_afterLinesDue = false;
}
