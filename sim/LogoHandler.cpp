#include "sim/LogoHandler.h"

#include "sim/MessageText.h"

namespace sim {

LogoHandler::LogoHandler(EventLoop& loop, Timeline& timeline, const PrivateBus& bus)
    : Service(loop, timeline, bus,
              {"logo", ChannelE::eUserBus, "com.kelvora.logohandler", "/com/kelvora/logohandler",
               "com.kelvora.logohandler"})
{
    setMembers({{"Start", "", "", [this](auto*, auto*, auto*) {
                     if (mDuration)
                         after(*mDuration, [this] { sendFinished(); });
                     return 0;
                 }}});
    comeBack();
}

LogoHandler::~LogoHandler()
{
    shutDown();
}

void LogoHandler::setDuration(std::optional<milliseconds> duration)
{
    mLoop.call([&] { mDuration = duration; });
}

void LogoHandler::setResult(bool result)
{
    mLoop.call([&] { mResult = result; });
}

void LogoHandler::setWrongType(bool wrongType)
{
    mLoop.call([&] { mWrongType = wrongType; });
}

void LogoHandler::finish()
{
    mLoop.call([this] { sendFinished(); });
}

void LogoHandler::sendFinished()
{
    sd_bus_message* raw = nullptr;
    if (bus() == nullptr ||
        sd_bus_message_new_signal(bus(), &raw, "/com/kelvora/logohandler", "com.kelvora.logohandler", "Finished") < 0)
        return;
    const MessagePtr signal(raw);
    if (mWrongType)
        sd_bus_message_append(raw, "s", "not what you asked for");
    else
        sd_bus_message_append(raw, "b", mResult ? 1 : 0);
    sd_bus_message_seal(raw, 1, 0);
    record(KindE::eSignal, "Finished", mWrongType ? "s" : "b", bodyText(raw));
    sd_bus_send(bus(), raw, nullptr);
}

} // namespace sim
