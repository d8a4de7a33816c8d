#include "protocol/Wire.h"

#include <fcntl.h>
#include <poll.h>
#include <systemd/sd-bus.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <thread>
#include <utility>
#include <vector>

// The least that can answer QV: as many calls as a start-up makes, then registers 0 and 6, byte for byte as
// docs/wire.md has them. Nothing of the daemon's code is in it. Each reply is written by a thread of its own, joined
// before the next one, or with -1 by the one thread that there is. It ends when the line is hung up.

namespace {

using Bytes = std::vector<unsigned char>;

constexpr char kSysD[] = "com.kelvora.sysdaemon"; // and interface
constexpr char kSysDPath[] = "/com/kelvora/sysdaemon";
constexpr unsigned kParamWordA = 180;
constexpr unsigned char kResetFlag = 0x10, kNumberMask = 0x0F;
constexpr std::size_t kShortest = 5; // header, two bytes of a request, CRC
constexpr unsigned kPolynomial = 0x1021;

struct tLine
{
    int fd = -1;
    timespec settle{};
    std::array<unsigned short, 256> crcTable{};
    bool threads = true;
    std::thread writer;
    Bytes last; // the reply that is sent again when QV repeats its request
    unsigned char number = 0;
    bool synchronised = false;
    bool resetPending = false;
};

int getParamInt(sd_bus* bus, unsigned param)
{
    int value = 0;
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    if (sd_bus_call_method(bus, kSysD, kSysDPath, kSysD, "GetParamInt", &error, &reply, "u", param) >= 0)
        sd_bus_message_read(reply, "i", &value);
    sd_bus_message_unref(reply);
    sd_bus_error_free(&error);
    return value;
}

bool openLine(tLine& line, const char* device, unsigned long baud)
{
    line.fd = open(device, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    termios tio{};
    if (line.fd < 0 || tcgetattr(line.fd, &tio) != 0)
        return false;
    cfmakeraw(&tio);
    tio.c_cc[VMIN] = tio.c_cc[VTIME] = 0;
    cfsetspeed(&tio, baud == 4'000'000 ? B4000000 : B115200);
    const auto settle = static_cast<long>(1e9 / static_cast<double>(baud) * 10 * 7);
    line.settle = {settle / 1'000'000'000, settle % 1'000'000'000};
    for (unsigned i = 0; i < line.crcTable.size(); ++i) {
        unsigned crc = i << 8;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc << 1) ^ ((crc & 0x8000) != 0 ? kPolynomial : 0);
        line.crcTable[i] = static_cast<unsigned short>(crc);
    }
    return tcsetattr(line.fd, TCSANOW, &tio) == 0;
}

unsigned crcOf(const tLine& line, const Bytes& bytes)
{
    unsigned crc = 0xFFFF;
    for (const unsigned char byte : bytes)
        crc = line.crcTable[(crc >> 8) ^ byte] ^ ((crc << 8) & 0xFFFF);
    return crc;
}

/// The groups of the byte stuffing, in place.
void decode(Bytes& bytes)
{
    std::size_t to = 0;
    unsigned char code = 0xFF;
    for (std::size_t at = 0; at < bytes.size() && bytes[at] != 0;) {
        if (code != 0xFF)
            bytes[to++] = 0;
        code = bytes[at++];
        for (int i = 1; i < code && at < bytes.size(); ++i)
            bytes[to++] = bytes[at++];
    }
    bytes.resize(to);
}

/// Frames of this program are shorter than a group of 254 bytes.
void writeLast(const tLine& line)
{
    Bytes wire(line.last.size() + 2);
    std::size_t code = 0;
    for (std::size_t i = 0; i < line.last.size(); ++i) {
        wire[i + 1] = line.last[i];
        if (line.last[i] == 0) {
            wire[code] = static_cast<unsigned char>(i + 1 - code);
            code = i + 1;
        }
    }
    wire[code] = static_cast<unsigned char>(line.last.size() + 1 - code);
    pollfd poller{line.fd, POLLOUT, 0};
    if (poll(&poller, 1, 1000) > 0 && write(line.fd, wire.data(), wire.size()) < 0)
        std::perror("floor: write");
}

void awaitWriter(tLine& line)
{
    if (line.writer.joinable())
        line.writer.join();
}

void send(tLine& line)
{
    awaitWriter(line);
    if (line.threads)
        line.writer = std::thread([&line] { writeLast(line); });
    else
        writeLast(line);
}

void reply(tLine& line, Bytes payload)
{
    line.number = (line.number + 1) & kNumberMask;
    payload.insert(payload.begin(), static_cast<unsigned char>(line.number | (line.resetPending ? kResetFlag : 0)));
    line.resetPending = false;
    const unsigned crc = crcOf(line, payload);
    payload.push_back(static_cast<unsigned char>(crc >> 8));
    payload.push_back(static_cast<unsigned char>(crc & 0xFF));
    awaitWriter(line);
    line.last = std::move(payload);
    send(line);
}

void reset(tLine& line)
{
    line.resetPending = true;
    line.synchronised = false;
    reply(line, {0});
}

/// True when the frame holds a request, which is left without header and CRC.
bool check(tLine& line, Bytes& frame)
{
    if (frame.size() < kShortest)
        return reset(line), false;
    const unsigned given = frame[frame.size() - 2] * 256U + frame.back();
    frame.resize(frame.size() - 2);
    const unsigned char number = frame[0] & kNumberMask;
    const bool broken = crcOf(line, frame) != given;
    if ((frame[0] & kResetFlag) != 0 && !broken) {
        line.number = number;
        line.synchronised = true;
    } else if (broken || (line.synchronised && line.number == ((number + 1) & kNumberMask))) {
        return line.last.empty() ? reset(line) : send(line), false;
    } else if (!line.synchronised || number != line.number) {
        return reset(line), false;
    }
    frame.erase(frame.begin());
    return true;
}

void answer(tLine& line, sd_bus* bus, const Bytes& request)
{
    if ((request[0] & wire::kCommandMask) != wire::eCmdReadReg)
        return reply(line, {static_cast<unsigned char>((request[0] & wire::kCommandMask) | wire::kErrorBit)});
    if (request[1] == wire::eRegRdConst0)
        return reply(line, {wire::eCmdReadReg, 0});
    if (request[1] == wire::eRegRdParamWordA) {
        const auto value = static_cast<unsigned>(getParamInt(bus, kParamWordA));
        reply(line,
              {wire::eCmdReadReg, static_cast<unsigned char>(value & 0xFF), static_cast<unsigned char>(value >> 8)});
    }
}

/// False when the line is hung up.
bool readFrame(const tLine& line, Bytes& frame)
{
    for (;;) {
        pollfd poller{line.fd, POLLIN, 0};
        if (poll(&poller, 1, 1000) <= 0)
            continue;
        nanosleep(&line.settle, nullptr);
        unsigned char chunk[64];
        const ssize_t got = read(line.fd, chunk, sizeof chunk);
        if (got <= 0)
            return false;
        const bool end = chunk[got - 1] == 0;
        frame.insert(frame.end(), chunk, chunk + got - (end ? 1 : 0));
        if (end)
            return decode(frame), true;
    }
}

} // namespace

int main(int argc, char** argv)
{
    tLine line;
    const char* device = nullptr;
    unsigned long baud = 0;
    unsigned long calls = 0;
    for (int opt = 0; (opt = getopt(argc, argv, "s:b:c:1")) != -1;) {
        if (opt == 's')
            device = optarg;
        else if (opt == 'b')
            baud = std::strtoul(optarg, nullptr, 10);
        else if (opt == 'c')
            calls = std::strtoul(optarg, nullptr, 10);
        else if (opt == '1')
            line.threads = false;
    }
    if (device == nullptr || (baud != 115'200 && baud != 4'000'000)) {
        std::fputs("Usage: floor -s DEVICE -b 115200|4000000 [-1] [-c CALLS]\n", stderr);
        return 2;
    }
    sd_bus* bus = nullptr;
    if (sd_bus_open_system(&bus) < 0) {
        std::fputs("floor: no system bus\n", stderr);
        return 1;
    }
    for (; calls > 0; --calls)
        getParamInt(bus, kParamWordA);
    if (!openLine(line, device, baud)) {
        std::perror(device);
        return 1;
    }
    for (Bytes request; readFrame(line, request); request.clear()) {
        if (check(line, request))
            answer(line, bus, request);
    }
    awaitWriter(line);
    sd_bus_flush_close_unref(bus);
    return 0;
}
