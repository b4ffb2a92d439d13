#include "sim/fault_plan.h"

#include <cstdlib>

#include "sim/opcodes.h"

namespace ksim {

namespace {

bool ParseUnsigned(const std::string& text, int base, unsigned long max, unsigned long& value)
{
    if (text.empty() || text[0] == '-' || text[0] == '+' || text[0] == ' ')
        return false;
    char* end = nullptr;
    value = std::strtoul(text.c_str(), &end, base);
    return *end == '\0' && value <= max;
}

bool ParseWhat(const std::string& what, FaultSpec& spec)
{
    if (what == "any") {
        spec.opcode = -1;
        return true;
    }
    if (const OpcodeInfo* op = FindOpcodeByName(what)) {
        spec.opcode = op->code;
        return true;
    }
    unsigned long code = 0;
    if (what.size() > 2 && (what.compare(0, 2, "0x") == 0 || what.compare(0, 2, "0X") == 0) &&
        ParseUnsigned(what.substr(2), 16, 0xFF, code)) {
        spec.opcode = static_cast<int>(code);
        return true;
    }
    return false;
}

bool ParseWhen(const std::string& when, FaultSpec& spec)
{
    if (when == "every") {
        spec.when = FaultWhen::Every;
        return true;
    }
    std::string number = when;
    spec.when = FaultWhen::Nth;
    if (!number.empty() && number.back() == '+') {
        number.pop_back();
        spec.when = FaultWhen::NthAndLater;
    }
    unsigned long nth = 0;
    if (!ParseUnsigned(number, 10, 0xFFFFFFFFul, nth) || nth == 0)
        return false;
    spec.nth = static_cast<uint32_t>(nth);
    return true;
}

// "raw=" and an even number of hex digits, at least one byte.
bool ParseRaw(const std::string& hex, FaultSpec& spec)
{
    if (hex.empty() || hex.size() % 2 != 0)
        return false;
    for (size_t i = 0; i < hex.size(); i += 2) {
        unsigned long byte = 0;
        if (!ParseUnsigned(hex.substr(i, 2), 16, 0xFF, byte))
            return false;
        spec.raw.push_back(static_cast<uint8_t>(byte));
    }
    spec.kind = FaultKind::Raw;
    return true;
}

bool ParseKind(const std::string& kind, FaultSpec& spec)
{
    const std::string rawPrefix = "raw=";
    if (kind.compare(0, rawPrefix.size(), rawPrefix) == 0)
        return ParseRaw(kind.substr(rawPrefix.size()), spec);
    const std::string degradePrefix = "degrade=";
    if (kind.compare(0, degradePrefix.size(), degradePrefix) == 0) {
        unsigned long rate = 0;
        if (!ParseUnsigned(kind.substr(degradePrefix.size()), 10, 0xFFFFFFFFul, rate))
            return false;
        spec.kind = FaultKind::Degrade;
        spec.cleanRateMax = static_cast<uint32_t>(rate);
        return true;
    }
    static const struct {
        const char* name;
        FaultKind kind;
    } kNamed[] = {
        {"noreply", FaultKind::NoReply}, {"badsum", FaultKind::BadSum},
        {"badmagic", FaultKind::BadMagic}, {"short", FaultKind::Short},
        {"toolong", FaultKind::TooLong}, {"bitflip", FaultKind::BitFlip},
        {"vanish", FaultKind::Vanish},
    };
    for (const auto& named : kNamed) {
        if (kind == named.name) {
            spec.kind = named.kind;
            return true;
        }
    }
    // "error1" .. "error5" name the type with one digit, "error7F" with two hex digits.
    const std::string prefix = "error";
    if (kind.compare(0, prefix.size(), prefix) != 0)
        return false;
    std::string type = kind.substr(prefix.size());
    unsigned long value = 0;
    if (type.empty() || type.size() > 2 || !ParseUnsigned(type, 16, 0xFF, value))
        return false;
    spec.kind = FaultKind::Error;
    spec.errorType = static_cast<uint8_t>(value);
    return true;
}

bool Fires(const FaultSpec& spec)
{
    switch (spec.when) {
    case FaultWhen::Every: return true;
    case FaultWhen::Nth: return spec.seen == spec.nth;
    case FaultWhen::NthAndLater: return spec.seen >= spec.nth;
    }
    return false;
}

}  // namespace

bool FaultReplacesReply(FaultKind kind)
{
    return kind == FaultKind::Error || kind == FaultKind::NoReply || kind == FaultKind::Vanish ||
           kind == FaultKind::Raw;
}

bool FaultPlan::Add(const std::string& text, std::string& error)
{
    FaultSpec spec;
    spec.text = text;
    std::string body = text;
    size_t at = body.find('@');
    if (at != std::string::npos) {
        unsigned long baud = 0;
        if (!ParseUnsigned(body.substr(at + 1), 10, 0xFFFFFF, baud) || baud == 0) {
            error = "bad line speed in fault '" + text + "'";
            return false;
        }
        spec.baud = static_cast<uint32_t>(baud);
        body.resize(at);
    }
    size_t first = body.find(':');
    size_t second = first == std::string::npos ? first : body.find(':', first + 1);
    if (second == std::string::npos || body.find(':', second + 1) != std::string::npos) {
        error = "fault '" + text + "' is not WHAT:WHEN:KIND[@BAUD]";
        return false;
    }
    if (!ParseWhat(body.substr(0, first), spec)) {
        error = "unknown command in fault '" + text + "'";
        return false;
    }
    if (!ParseWhen(body.substr(first + 1, second - first - 1), spec)) {
        error = "bad WHEN in fault '" + text + "' (N, N+ or every)";
        return false;
    }
    if (!ParseKind(body.substr(second + 1), spec)) {
        error = "unknown fault kind in '" + text + "'";
        return false;
    }
    m_specs.push_back(spec);
    return true;
}

const FaultSpec* FaultPlan::Match(uint8_t opcode, uint32_t baud)
{
    const FaultSpec* fired = nullptr;
    m_firedDegrade = nullptr;
    for (FaultSpec& spec : m_specs) {
        if (spec.opcode >= 0 && spec.opcode != opcode)
            continue;
        // With @BAUD only the commands received at that speed count.
        if (spec.baud != 0 && spec.baud != baud)
            continue;
        if (spec.seen < 0xFFFFFFFFu)
            ++spec.seen;
        if (!Fires(spec))
            continue;
        if (spec.kind == FaultKind::Degrade) {
            if (!m_firedDegrade) {
                m_firedDegrade = &spec;
                m_degradePending = true;
                m_degradeTo = spec.cleanRateMax;
            }
        } else if (!fired) {
            fired = &spec;
        }
    }
    return fired;
}

bool FaultPlan::TakeDegrade(uint32_t& cleanRateMax)
{
    if (!m_degradePending)
        return false;
    m_degradePending = false;
    cleanRateMax = m_degradeTo;
    return true;
}

}  // namespace ksim
