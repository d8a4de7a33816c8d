#pragma once

#include "link/SerialIf.h"

#include <atomic>
#include <string>

/// The serial port (termios). Registers itself with SManager before main runs.
class SerialPhy : public SerialIf
{
public:
    SerialPhy();
    ~SerialPhy() override;
    SerialPhy(const SerialPhy&) = delete;
    SerialPhy& operator=(const SerialPhy&) = delete;

    int getBackendType() override { return eBackendSerial; }

    /// Closes what is open, opens params->device and configures it.
    /// Returns what configurePort returns; throws SerialException when the path is empty or cannot be opened.
    int init(tInitParams* params) override;

    /// After the first byte it waits seven character times for more, so that one read takes a whole short frame.
    /// A line that is hung up reads nothing for ever without waiting: then the time-out is waited out instead. When the
    /// next read finds the line still hung up, the port counts as closed and it throws: only init can help.
    int readBlocking(unsigned char* buf, unsigned int len, int timeoutMs) override;
    int writeBlocking(const unsigned char* buf, unsigned int len, int timeoutMs) override;
    bool isOpen() const override { return mOpen; }

    /// Opens the stored path for reading and writing; throws SerialException, also when it is open already.
    void open();
    void close();

    /// Raw mode at baud bit/s with the stored settings. Returns 0, or -1 when the attributes were refused; a
    /// descriptor that is no terminal counts as configured. Throws SerialException when the port isn't open.
    int configurePort(unsigned int baud);

    /// The termios speed of a rate in bit/s; B0 for a rate that termios has no constant for.
    unsigned int toBaudrate(unsigned int baud) const;

    // The settings change through init only: the setters store nothing.
    void setDataBits(DataBitsE) {}
    DataBitsE getDataBits() const { return mDataBits; }
    void setParity(ParityE) {}
    ParityE getParity() const { return mParity; }
    void setStopBits(StopBitsE) {}
    StopBitsE getStopBits() const { return mStopBits; }
    void setFlowCtrl(FlowControlE) {}
    FlowControlE getFlowCtrl() const { return mFlowCtrl; }

private:
    [[noreturn]] void giveUp();

    std::string mName{"SerialPhy"};
    int mFd = -1;
    std::atomic<bool> mOpen = false; ///< asked by the reply thread too
    std::string mDevice;
    DataBitsE mDataBits{};
    ParityE mParity{};
    StopBitsE mStopBits{};
    FlowControlE mFlowCtrl{};
    std::uint32_t mReadSettleNs = 0;
    bool mHungUp = false; ///< the last read found the line so
};
