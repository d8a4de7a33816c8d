#include "link/SDataLink.h"
#include "link/SFrame.h"
#include "link/SManager.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <deque>
#include <memory>
#include <random>

// What a frame costs, by its length: the shortest request, one chunk of the line, one group of the encoding, and a long
// text. Every fourth byte is zero, which is what numbers of several bytes look like.

namespace {

using Bytes = std::vector<unsigned char>;

Bytes message(std::int64_t length)
{
    Bytes bytes(static_cast<std::size_t>(length));
    std::minstd_rand random(1);
    for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = i % 4 == 3 ? 0 : static_cast<unsigned char>(1 + random() % 255);
    return bytes;
}

/// A line that gives back what was written to it, a chunk at a time.
class Loopback : public SerialIf
{
public:
    int getBackendType() override { return eBackendSerial; }
    int init(tInitParams*) override { return 0; }
    bool isOpen() const override { return true; }
    int readBlocking(unsigned char* buf, unsigned int len, int) override
    {
        const std::size_t count = std::min<std::size_t>(len, mBytes.size());
        const auto end = mBytes.begin() + static_cast<std::ptrdiff_t>(count);
        std::copy(mBytes.begin(), end, buf);
        mBytes.erase(mBytes.begin(), end);
        return static_cast<int>(count);
    }
    int writeBlocking(const unsigned char* buf, unsigned int len, int) override
    {
        mBytes.insert(mBytes.end(), buf, buf + len);
        return static_cast<int>(len);
    }

private:
    std::deque<unsigned char> mBytes;
};

void encode(benchmark::State& state)
{
    const Bytes in = message(state.range(0));
    Bytes out(in.size() + in.size() / 254 + 1);
    for ([[maybe_unused]] const auto _ : state)
        benchmark::DoNotOptimize(SFrame::encodeSFrame(&in, out.data()));
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void decode(benchmark::State& state)
{
    const Bytes in = message(state.range(0));
    Bytes wire(in.size() + in.size() / 254 + 1);
    wire.resize(static_cast<std::size_t>(SFrame::encodeSFrame(&in, wire.data())));
    Bytes frame;
    for ([[maybe_unused]] const auto _ : state) {
        frame = wire;
        benchmark::DoNotOptimize(SFrame::decodeSFrame(frame));
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void crc(benchmark::State& state)
{
    const SDataLink link;
    const Bytes in = message(state.range(0));
    for ([[maybe_unused]] const auto _ : state)
        benchmark::DoNotOptimize(link.calcCrc16(&in));
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void frameThereAndBack(benchmark::State& state)
{
    SManager::registerSerialBackend(std::make_unique<Loopback>().release());
    SManager::mgr()->mDevice = "loopback";
    SFrame frame;
    if (!frame.init()) {
        state.SkipWithError("the loopback line did not open");
        return;
    }
    const Bytes in = message(state.range(0));
    Bytes out;
    for ([[maybe_unused]] const auto _ : state) {
        out.clear();
        frame.writeSFrame(&in);
        benchmark::DoNotOptimize(frame.readSFrame(out));
    }
    // a long frame arrives with its filler behind it
    if (out.size() < in.size() || !std::equal(in.begin(), in.end(), out.begin()))
        state.SkipWithError("the frame came back changed");
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

} // namespace

BENCHMARK(encode)->Arg(5)->Arg(64)->Arg(254)->Arg(2000);
BENCHMARK(decode)->Arg(5)->Arg(64)->Arg(254)->Arg(2000);
BENCHMARK(crc)->Arg(5)->Arg(64)->Arg(254)->Arg(2000);
BENCHMARK(frameThereAndBack)->Arg(5)->Arg(64)->Arg(254)->Arg(2000);
