#include "sim/EventLoop.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <cstdint>
#include <stdexcept>
#include <utility>

namespace sim {

EventLoop::EventLoop()
    : mWake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    sd_event* event = nullptr;
    sd_event_source* source = nullptr;
    if (!mWake || sd_event_new(&event) < 0)
        throw std::runtime_error("no event loop");
    mEvent.reset(event);
    const auto onWake = [](sd_event_source*, int, std::uint32_t, void* loop) noexcept -> int {
        static_cast<EventLoop*>(loop)->runPosted();
        return 0;
    };
    if (sd_event_add_io(event, &source, mWake.get(), EPOLLIN, onWake, this) < 0)
        throw std::runtime_error("no event loop");
    mWakeSource.reset(source);
    mThread = std::thread([this] { run(); });
}

EventLoop::~EventLoop()
{
    {
        const std::lock_guard lock(mMutex);
        mStop = true;
    }
    post([] {});
    mThread.join();
}

void EventLoop::post(std::function<void()> function)
{
    // The write stays under the lock: the loop could otherwise run the function and be gone before it.
    const std::lock_guard lock(mMutex);
    mPosted.push_back(std::move(function));
    eventfd_write(mWake.get(), 1);
}

void EventLoop::run()
{
    for (;;) {
        {
            const std::lock_guard lock(mMutex);
            if (mStop && mPosted.empty())
                return;
        }
        if (sd_event_run(mEvent.get(), UINT64_MAX) < 0)
            return;
    }
}

void EventLoop::runPosted()
{
    eventfd_t ignored = 0;
    eventfd_read(mWake.get(), &ignored);
    std::deque<std::function<void()>> posted;
    {
        const std::lock_guard lock(mMutex);
        posted.swap(mPosted);
    }
    for (const auto& function : posted)
        function();
}

void EventLoop::after(milliseconds delay, std::function<void()> function)
{
    const std::size_t id = mNextTimer++;
    tTimer& timer = mTimers[id];
    timer.loop = this;
    timer.id = id;
    timer.function = std::move(function);
    const auto onTimer = [](sd_event_source*, std::uint64_t, void* data) noexcept -> int {
        const auto* fired = static_cast<tTimer*>(data);
        const auto node = fired->loop->mTimers.extract(fired->id);
        node.mapped().function();
        return 0;
    };
    sd_event_source* source = nullptr;
    const auto micros = static_cast<std::uint64_t>(std::chrono::microseconds(delay).count());
    if (sd_event_add_time_relative(mEvent.get(), &source, CLOCK_MONOTONIC, micros, 1000, onTimer, &timer) < 0)
        throw std::runtime_error("no timer");
    timer.source.reset(source);
}

} // namespace sim
