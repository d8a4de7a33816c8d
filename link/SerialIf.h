#pragma once

#include <cstdint>

// One machine word each, so that both kinds of backend take the same record: the shared-memory backend finds pointers
// to its region names in the words that hold numbers for the serial port.

enum DataBitsE : std::uintptr_t
{
    eDataBits5 = 5,
    eDataBits6 = 6,
    eDataBits7 = 7,
    eDataBits8 = 8
};
enum ParityE : std::uintptr_t
{
    eParityNone = 0,
    eParityOdd = 1,
    eParityEven = 2
};
enum StopBitsE : std::uintptr_t
{
    eStopBits1 = 1,
    eStopBits2 = 2
};
enum FlowControlE : std::uintptr_t
{
    eFlowControlNone = 0,
    eFlowControlSoftware = 1,
    eFlowControlHardware = 2
};

/// What SerialIf::init is given. Serial port: as named. Shared memory: the first four words are pointers to the names
/// of the regions (terminal side twice, then QV's side twice), the last two are 0.
struct tInitParams
{
    const char* device;      ///< path of the device, zero-ended, not owned
    std::uintptr_t baudrate; ///< bit/s, 32 bits
    DataBitsE dataBits;
    ParityE parity;
    StopBitsE stopBits;
    FlowControlE flowCtrl;
};

/// The byte transport to QV. The link controller's thread reads while the reply thread writes.
class SerialIf
{
public:
    /// Kinds of backend as getBackendType returns them.
    enum BackendE : int
    {
        eBackendSerial = 0,
        eBackendSharedMemory = 1
    };

    virtual ~SerialIf() = default;

    virtual int getBackendType() = 0;

    /// Opens and configures the transport; what was open before is closed.
    /// Returns 0, or -1 when the settings were refused; throws SerialException when there is nothing to open.
    virtual int init(tInitParams* params) = 0;

    /// Waits at most timeoutMs for bytes and reads up to len of them.
    /// Returns their number, 0 on time-out, -1 when the read itself failed; throws SerialException.
    virtual int readBlocking(unsigned char* buf, unsigned int len, int timeoutMs) = 0;

    /// Writes len bytes, waiting at most timeoutMs whenever the line takes none.
    /// Returns the number of bytes written, less than len on time-out; throws SerialException.
    virtual int writeBlocking(const unsigned char* buf, unsigned int len, int timeoutMs) = 0;

    virtual bool isOpen() const = 0;
};
