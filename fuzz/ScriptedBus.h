#pragma once

#include <cstdint>
#include <span>

// Buses that lead nowhere, for programs in which ScriptedBus.cpp stands before the bus library's calls. Connections and
// messages are the library's own; each call is checked and answered in the process, each connection opens or fails at
// once, and whoever waits for the signal Finished gets it. Needs an InlineThreads: one thread only.

/// What the answers are to be from now on; the bytes stay the caller's. Each opening, call and wait for the logos' end
/// takes a byte, and what this one asks for; when the bytes have been used up, every answer is the usual one:
/// "http://localhost", true, 1. Each byte modulo 8:
///   1  a value of the right type: 4 bytes of a number, one of a flag, a length byte and the bytes of a text
///   2  another type, which a byte chooses
///   3  an error, which a byte chooses
///   4  an error, which a byte chooses, before the call was sent, or of the wait for the logos' end
///   5  late: a byte says what comes before it, in bits 0 and 1 how many strays, in bits 3 and 4 of which kind, in bit
///      2 a signal of the process; for the logos' end, a signal of the process and then another turn
///   6  the connection is lost, with an error which a byte chooses; for the logos' end, their handler leaves
///   7  none before the time-out, which is skipped: a byte says what comes after it, in bit 0 the answer, in bit 1 not
///      before the next call waits, in bit 2 that the call never left, in bit 3 a flood of strays; for the logos' end,
///      nothing in this turn
///   anything else: the usual one
void scriptBus(std::span<const std::uint8_t> script);
