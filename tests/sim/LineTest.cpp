#include "sim/Pty.h"
#include "sim/TempDir.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>

namespace {

using namespace sim;

TEST(Pty, carriesEveryByteBothWaysUnchanged)
{
    Pty line;
    const UniqueFd device(open(line.path().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_TRUE(device);
    std::string all;
    for (int byte = 0; byte < 256; ++byte)
        all += static_cast<char>(byte);
    std::string got(256, '\0');
    ASSERT_EQ(write(line.master(), all.data(), 256), 256);
    ASSERT_EQ(read(device.get(), got.data(), 256), 256);
    EXPECT_EQ(got, all);
    got.assign(256, '\0');
    ASSERT_EQ(write(device.get(), all.data(), 256), 256);
    pollfd poller{line.master(), POLLIN, 0};
    ASSERT_EQ(poll(&poller, 1, static_cast<int>(kDeadline.count())), 1);
    ASSERT_EQ(read(line.master(), got.data(), 256), 256);
    EXPECT_EQ(got, all);
}

TEST(Pty, hangsUpAndOpensAgainBehindTheSameLink)
{
    TempDir folder;
    Pty line(folder.path() + "/line");
    const std::string path = line.path();
    const UniqueFd device(open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    line.hangUp();
    pollfd poller{device.get(), POLLIN, 0};
    ASSERT_EQ(poll(&poller, 1, static_cast<int>(kDeadline.count())), 1);
    EXPECT_NE(poller.revents & POLLHUP, 0);
    EXPECT_EQ(line.master(), -1);
    EXPECT_LT(open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC), 0);

    line.reopen();
    EXPECT_EQ(line.path(), path);
    const UniqueFd again(open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_EQ(write(line.master(), "x", 1), 1);
    char byte = 0;
    ASSERT_EQ(read(again.get(), &byte, 1), 1);
    EXPECT_EQ(byte, 'x');
}

} // namespace
