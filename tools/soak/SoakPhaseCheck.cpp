#include "SoakPhaseCheck.h"

namespace soak {

std::vector<std::string> phaseViolations(const SwitchCounters& c, const LedgerTally& t)
{
    std::vector<std::string> out;
    auto n = [](std::uint64_t v) { return std::to_string(v); };
    if (c.unexpected != 0)
        out.push_back("the switch got " + n(c.unexpected) + " answers to commands it had no open record of");
    // A command is answered, or lost with its connection; nothing else.
    if (c.answered + c.unanswered != c.commands)
        out.push_back("the switch sent " + n(c.commands) + " commands but counts " + n(c.answered) + " answered and " +
                      n(c.unanswered) + " unanswered");
    if (t.handled > c.commands)
        out.push_back("handled " + n(t.handled) + " switch commands, the switch sent " + n(c.commands));
    // Every answer comes from a handling; a handled command may still have
    // lost its answer with the connection.
    if (t.handled < c.answered)
        out.push_back("the switch got " + n(c.answered) + " answers to " + n(t.handled) + " handled commands");
    return out;
}

} // namespace soak
