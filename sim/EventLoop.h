#pragma once

#include "sim/Handles.h"
#include "sim/Timeline.h"

#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <type_traits>

namespace sim {

/// The one thread on which all stand-ins live: an sd-event loop that also runs what other threads hand to it.
class EventLoop
{
public:
    EventLoop();
    EventLoop(const EventLoop&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;
    ~EventLoop();

    /// To be used on the loop's thread only.
    sd_event* event() const { return mEvent.get(); }

    /// Runs the function on the loop's thread soon, in the order of the posts. From any thread.
    void post(std::function<void()> function);
    /// Runs the function on the loop's thread, waits for it and gives its result or its exception. From any thread.
    template <class Function>
    auto call(Function function) -> std::invoke_result_t<Function>
    {
        if (std::this_thread::get_id() == mThread.get_id())
            return function();
        // Shared: get() returns while the loop's thread is still leaving the task.
        auto task = std::make_shared<std::packaged_task<std::invoke_result_t<Function>()>>(std::move(function));
        auto result = task->get_future();
        post([task] { (*task)(); });
        return result.get();
    }
    /// Runs the function on the loop's thread after the time. From the loop's thread only.
    void after(milliseconds delay, std::function<void()> function);

private:
    struct tTimer
    {
        EventLoop* loop = nullptr;
        std::size_t id = 0;
        std::function<void()> function;
        EventSourcePtr source;
    };

    void run();
    void runPosted();

    UniqueFd mWake;
    EventPtr mEvent;
    EventSourcePtr mWakeSource;
    std::map<std::size_t, tTimer> mTimers;
    std::size_t mNextTimer = 0;
    std::mutex mMutex; ///< guards mPosted and mStop
    std::deque<std::function<void()>> mPosted;
    bool mStop = false;
    std::thread mThread;
};

} // namespace sim
