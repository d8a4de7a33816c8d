#include "qv/Explain.h"

#include "qv/Values.h"

namespace qv {

namespace {

std::string whatCame(const tPeerCounts& counts)
{
    if (counts.bytes == 0) {
        return "nothing at all came back";
    }
    if (counts.received == 0) {
        return std::to_string(counts.bytes) + " bytes came back, but no frame";
    }
    if (counts.echoes == counts.received) {
        return "only what was sent came back (an echo)";
    }
    if (counts.broken + counts.echoes == counts.received) {
        return "only broken frames came back";
    }
    if (counts.resets != 0) {
        return "the daemon answered with reset frames: it gets our frames, but damaged, or it is out of step";
    }
    return "only earlier replies or broken frames came back";
}

std::string whatToTry(const tRequest& request, const tResult& result, const tPeerOptions& options)
{
    const auto& counts = result.last;
    const auto rate = options.baud != 0 ? std::to_string(options.baud) + " bit/s" : std::string("this rate");
    const bool isRead = (request.message[0] & wire::kCommandMask) == wire::eCmdReadReg;
    if (isRead && !request.replyType && result.wasInStep && counts.bytes == 0) {
        return "The daemon never answers the read of a register that it does not have; 'list' shows what there is.";
    }
    if (result.wasInStep && counts.bytes == 0) {
        return "The daemon was in step just before. Is it stopped, or waiting for a slow service? Allow more time "
               "with\n"
               "  --timeout.";
    }
    if (counts.bytes == 0) {
        return "Is the daemon running on the device (systemctl status vorlan)? Is this the right port, the cable in "
               "and\n"
               "  crossed? Does the other end use " +
               rate + " too (--baud)?";
    }
    if (!result.wasInStep && counts.echoes != 0 && counts.echoes == counts.received) {
        return "Is there a loop-back plug or another terminal at the other end, instead of the daemon?";
    }
    if (!result.wasInStep && (counts.received == 0 || counts.broken == counts.received)) {
        return "Most likely the rate is wrong: the other end does not use " + rate +
               " (--baud). Or somebody else writes to the line,\n  a login or the kernel for instance, or it is noisy.";
    }
    return "The line works but is bad or has more than one speaker: look at the frames with --trace, allow more with "
           "--tries.";
}

/// What ended the request before its time, or why there is no usable answer.
std::string whatHappened(const tRequest& request, const tResult& result, const tPeerOptions& options)
{
    const auto& counts = result.last;
    if (result.outcome == OutcomeE::eStopped) {
        return "interrupted.";
    }
    if (result.outcome == OutcomeE::eLineGone) {
        return result.fault + ".\n  Was the adapter unplugged, or the program at the other end ended?";
    }
    if (result.outcome == OutcomeE::eBadReply) {
        return "the reply makes no sense: " + formatValue(*request.replyType, result.data) +
               ".\n  Is the daemon of another version? See the frames with --trace.";
    }
    return "no answer: " + whatCame(counts) + " in " + std::to_string(counts.sent) +
           (counts.sent == 1 ? " try" : " tries") + " of " + std::to_string(options.timeout.count()) + " ms.\n  " +
           whatToTry(request, result, options);
}

} // namespace

std::string explainNoAnswer(const tRequest& request, const tResult& result, const tPeerOptions& options)
{
    if (result.outcome == OutcomeE::eUnknown) {
        return "the daemon asked for a new start while this was under way: it was started anew, or the line is bad.\n"
               "  Whether the request was carried out is UNKNOWN. It was not sent again, so that nothing happens "
               "twice.\n"
               "  Look at the device; if it was not carried out, give it again.";
    }
    auto text = whatHappened(request, result, options);
    if (result.mayBeDone) {
        text += "\n  The request may have been carried out all the same: look at the device before you give it again.";
    }
    return text;
}

} // namespace qv
