#include "fuzz/Controller.h"

#include "core/VorlanCfg.h"
#include "dbus/SDBusClients.h"
#include "fuzz/Check.h"
#include "link/SManager.h"
#include "protocol/Wire.h"
#include "qv/Frame.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <utility>
#include <vector>

namespace {

// The steps of run before the first request. Run itself would serve a line to its end and stop the clients; an explicit
// instantiation may name what is private.
bool callInitLink(Vorlan& vorlan, SManager& mgr);
void callReadStartParams(Vorlan& vorlan);

template <auto InitLink, auto ReadStartParams>
struct tSteps
{
    friend bool callInitLink(Vorlan& vorlan, SManager& mgr) { return (vorlan.*InitLink)(mgr); }
    friend void callReadStartParams(Vorlan& vorlan) { (vorlan.*ReadStartParams)(); }
};
template struct tSteps<&Vorlan::initLink, &Vorlan::readStartParams>;

std::vector<qv::Bytes> sReplies; ///< to the request under way

class RecordingSerial : public SerialIf
{
public:
    int getBackendType() override { return eBackendSerial; }
    int init(tInitParams*) override { return 0; }
    bool isOpen() const override { return true; }
    int readBlocking(unsigned char*, unsigned int, int) override { return 0; }

    int writeBlocking(const unsigned char* buf, unsigned int len, int) override
    {
        const auto frame = qv::parseWire({buf, len - 1});
        check(frame.ok(), "a reply is a well-formed frame");
        sReplies.push_back(frame.payload);
        return static_cast<int>(len);
    }
};

bool isUnknownRead(const Vorlan::tBytes& message)
{
    return message.size() >= 2 && (message[0] & wire::kCommandMask) == wire::eCmdReadReg &&
           message[1] >= std::size(wire::kReadRegisters);
}

void checkReplies(const Vorlan::tBytes& message, bool accepted)
{
    const auto replies = std::exchange(sReplies, {});
    if (isUnknownRead(message)) {
        check(replies.empty() && !accepted, "a read of an unknown register gets no reply");
        return;
    }
    check(replies.size() == 1, "a request gets one reply");
    const unsigned int cmd = message.empty() ? 0U : message[0] & wire::kCommandMask;
    check(replies[0][0] == (cmd | (accepted ? 0U : wire::kErrorBit)),
          "a reply's status byte holds the command and tells whether the request was accepted");
}

} // namespace

std::unique_ptr<Vorlan> newController()
{
    static const bool registered = SManager::registerSerialBackend(new RecordingSerial); // takes it over
    static_cast<void>(registered);
    SDBusClients::smpInstance.reset(); // the controller before this one may have stopped the clients
    const auto cfg = VorlanCfg::cfg();
    cfg->AnimationEnabled = true;
    cfg->StatusQV = 0;
    cfg->IpAddrQV.set("");
    auto vorlan = std::make_unique<Vorlan>();
    vorlan->init();
    check(callInitLink(*vorlan, *SManager::mgr()), "a line that opens is taken");
    return vorlan;
}

void readStartParams(Vorlan& vorlan)
{
    callReadStartParams(vorlan);
}

bool request(Vorlan& vorlan, Vorlan::tBytes message)
{
    const Vorlan::tBytes original = message;
    try {
        const bool accepted = vorlan.parse(message);
        checkReplies(original, accepted);
        return accepted;
    } catch (const VorlanException&) {
        checkReplies(original, true);
        throw;
    }
}

void requests(Vorlan& vorlan, std::span<const std::uint8_t> row)
{
    try {
        while (!row.empty()) {
            const std::size_t count = std::min<std::size_t>(row[0], row.size() - 1);
            const auto message = row.subspan(1, count);
            row = row.subspan(1 + count);
            request(vorlan, Vorlan::tBytes(message.begin(), message.end()));
        }
    } catch (const VorlanException&) { // the update has been started: no request follows
        return;
    }
}
