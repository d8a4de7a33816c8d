#pragma once

#include <cstdint>
#include <span>

// Buses that lead nowhere, for programs in which ScriptedBus.cpp stands before the bus library's calls. Connections and
// messages are the library's own; each call is checked and answered in the process, each connection opens or fails at
// once, and whoever waits for the signal Finished gets it. Needs an InlineThreads: one thread only.

/// What the answers are to be from now on; the bytes stay the caller's. Each opening, call and signal takes a byte,
/// and what this one asks for; when the bytes have been used up, every answer is the usual one: "http://localhost",
/// true, 1. Each byte modulo 8:
///   1  a value of the right type: 4 bytes of a number, one of a flag, a length byte and the bytes of a text
///   2  another type, which a byte chooses
///   3  an error, which a byte chooses
///   4  interrupted before the call was sent
///   5  interrupted while waiting: a byte says what comes then, in bits 0 and 1 how many strays before the answer, in
///      bit 2 that the answer is an error
///   anything else: the usual one
void scriptBus(std::span<const std::uint8_t> script);
