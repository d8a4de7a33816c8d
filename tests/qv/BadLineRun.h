#pragma once

#include "qv/BadLine.h"
#include "tests/process/Rig.h"

#include <string>
#include <vector>

/// Requests over a line that is bad on purpose, and an oracle that counts their effects on the bus.
namespace bad_line {

/// Frames that QV sends at most, once the line is good again, until a request is answered: a rest on the line spoils
/// the first and may cost a reset, a reset that was under way costs a second one.
inline constexpr unsigned kMaxFramesToStep = 8;

/// What a line can do; the rate is the share of frames that each of its faults meets, in either direction.
///   frames  lost frames, frames with a changed byte
///   bytes   stray bytes, frames with a run of up to 8 garbled bytes, each frame in two pieces
///   late    lost frames, each frame in two pieces and late, so that replies come after their time
///   bursts  four frames in a row are lost, or have a run of up to 16 garbled bytes
///   all     everything at once, each at half the rate
extern const std::vector<std::string> kKinds;

struct tCase
{
    std::string kind = "frames";
    unsigned percent = 5;
    unsigned requests = 1000;
    std::uint64_t seed = 1;
    unsigned forgeOneIn = 0; ///< one frame in so many is changed and its CRC made to fit; 0: none
};

struct tFigures
{
    qv::tBadLineCounts sent;
    qv::tBadLineCounts received;
    qv::tPeerCounts peer;
    unsigned unknown = 0;    ///< outcomes that a reset left open; each is looked up on the bus at the end
    unsigned escapesOut = 0; ///< spoilt frames to the daemon that pass the CRC all the same
    unsigned escapesIn = 0;  ///< and from it
    unsigned byEscapes = 0;  ///< wrong effects and answers that such a frame accounts for
    unsigned forgedOut = 0;  ///< made on purpose
    unsigned forgedIn = 0;
    unsigned mended = 0;       ///< times that the line became good in the middle of a request
    unsigned framesToStep = 0; ///< the most that it took from there
    unsigned effectsExpected = 0;
    unsigned effectsSeen = 0;
    unsigned wrongAnswers = 0;
    std::vector<std::string> violations; ///< of what must hold on any line; empty when all is well

    static std::string header();
    std::string row(const tCase& what) const;
};

qv::tBadLineOptions optionsOf(const tCase& what);

/// Starts the rig's daemon. Every other request sets a configuration number that no other one sets; those between read
/// a parameter that has another value each time. Now and then, at a repeat, the line is good until QV and the
/// daemon are back in step.
tFigures run(rig::Rig& rig, const tCase& what);

} // namespace bad_line
