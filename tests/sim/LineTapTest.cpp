#include "sim/LineTap.h"

#include "sim/Device.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <string>

namespace {

using namespace sim;

bool ready(int fd, short events)
{
    pollfd poller{fd, events, 0};
    return poll(&poller, 1, static_cast<int>(kDeadline.count())) == 1 && (poller.revents & events) != 0;
}

/// All of it goes in at one end before any is taken out at the other.
std::string carried(int from, int to, const std::string& text)
{
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t put = ready(from, POLLOUT) ? write(from, text.data() + done, text.size() - done) : -1;
        if (put <= 0)
            return "not taken after " + std::to_string(done) + " bytes";
        done += static_cast<std::size_t>(put);
    }
    std::string out;
    for (char chunk[4096]; out.size() < text.size() && ready(to, POLLIN);) {
        const ssize_t got = read(to, chunk, sizeof chunk);
        if (got <= 0)
            break;
        out.append(chunk, static_cast<std::size_t>(got));
    }
    return out;
}

TEST(LineTap, keepsWhatTheOtherSideDoesNotTakeYet)
{
    Device device;
    LineTap tap(device);
    const UniqueFd qv(open(tap.path().c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    const UniqueFd daemon(open(device.line().path().c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    std::string text; // more than a line takes by itself
    for (int i = 0; text.size() < 100'000; ++i)
        text += std::to_string(i) + ',';
    EXPECT_EQ(carried(qv.get(), daemon.get(), text), text);
    EXPECT_EQ(carried(daemon.get(), qv.get(), text), text);
}

} // namespace
