// The daemon with a serial port that can be made to fail in ways that no pseudo terminal does: the file that
// VORLAN_BREAK names says how, and is gone when it has happened.

#include "link/SManager.h"
#include "link/SerialException.h"
#include "link/SerialPhy.h"

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <new>
#include <string>

int vorlanMain(int argc, char** argv); // the daemon's main by another name

namespace {

class BreakablePort : public SerialPhy
{
public:
    explicit BreakablePort(std::string order)
        : mOrder(std::move(order))
    {}

    /// "init": the device that it is to open, as a failure; "init-textless": something that is no std::exception.
    int init(tInitParams* params) override
    {
        const std::string order = ordered("init");
        if (order == "init-textless")
            throw 0;
        if (!order.empty())
            throw SerialException(params->device);
        return SerialPhy::init(params);
    }

    bool isOpen() const override
    {
        if (mUncaught)
            throw std::bad_alloc(); // here nobody expects it
        return SerialPhy::isOpen();
    }

    int readBlocking(unsigned char* buf, unsigned int len, int timeoutMs) override
    {
        breakAs("read");
        const int count = SerialPhy::readBlocking(buf, len, timeoutMs);
        breakAs("read");
        return count;
    }

    int writeBlocking(const unsigned char* buf, unsigned int len, int timeoutMs) override
    {
        breakAs("write");
        return SerialPhy::writeBlocking(buf, len, timeoutMs);
    }

private:
    /// "read-unknown": no failure of the port; "read-serial": one that leaves it open; "read-closed": closed;
    /// "read-uncaught": one whose handling fails in its turn.
    void breakAs(const std::string& where)
    {
        const std::string order = ordered(where);
        if (order.empty())
            return;
        if (order == where + "-unknown")
            throw std::bad_alloc();
        if (order == where + "-closed")
            close();
        mUncaught = order == where + "-uncaught";
        throw SerialException("SerialPhy: broken by order");
    }

    /// The order, if it begins so; it is carried out once.
    std::string ordered(const std::string& where) const
    {
        std::string order;
        if (!(std::ifstream(mOrder) >> order) || !order.starts_with(where))
            return "";
        unlink(mOrder.c_str());
        return order;
    }

    const std::string mOrder;
    std::atomic<bool> mUncaught = false;
};

} // namespace

int main(int argc, char** argv)
{
    const char* order = std::getenv("VORLAN_BREAK");
    SManager::registerSerialBackend(new BreakablePort(order == nullptr ? "" : order));
    return vorlanMain(argc, argv);
}
