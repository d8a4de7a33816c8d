#pragma once

#include "qv/Bytes.h"
#include "sim/Device.h"

#include <chrono>
#include <string>
#include <vector>

namespace bench {

using std::chrono::nanoseconds;

/// Throws std::runtime_error when the condition does not hold.
void require(bool condition, const std::string& what);

/// Processor time that a process has used, its ended threads included.
nanoseconds processorTime(pid_t pid);

/// A program that answers one request after the other on a line of its own, started on the simulated device's buses as
/// "PROGRAM ARGUMENT... -s DEVICE -b RATE". Every reply is checked; one that is missing or wrong is an exception. Used
/// by one thread.
class Server
{
public:
    /// description: "NAME:KIND:PROGRAM[:ARGUMENT...]". KIND is daemon or link for one that talks as the daemon does,
    /// modbus for a slave that is asked for a register. A daemon ends when it is told to start an update, the others
    /// when the line is hung up.
    Server(sim::Device& device, const std::string& description, unsigned rate);

    const std::string& name() const { return mName; }
    bool isDaemon() const { return mKind == "daemon"; }
    bool isModbus() const { return mKind == "modbus"; }
    pid_t pid() const { return mProcess.pid(); }

    /// Starts it, under whatever tool is to watch it, and waits for its first answer. Gives the time of both, with the
    /// request waiting on the line from the beginning.
    nanoseconds start(const std::vector<std::string>& wrapper = {});
    /// Reads a register; gives the time from the first byte written to the last byte read.
    nanoseconds ask(unsigned char address);
    /// Waits until it has ended; a status other than 0 is an exception.
    void stop();
    /// Ends it in no good order.
    void kill();

private:
    void sendFirst();
    void send(qv::ByteView message, unsigned char flags);
    bool readable(std::chrono::milliseconds time) const;
    qv::Bytes receive();
    void check(const qv::Bytes& reply);

    sim::Device& mDevice;
    std::string mName;
    std::string mKind;
    std::string mProgram;
    sim::Daemon::tOptions mOptions;
    sim::Pty mLine;
    sim::Daemon mProcess;
    unsigned char mNumber = 0; ///< of the next request
};

} // namespace bench
