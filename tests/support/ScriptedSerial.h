#pragma once

#include "link/SerialIf.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <exception>
#include <functional>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

/// A transport that plays a script instead of a line. Reads take the chunks and failures that were laid down, in their
/// order; a read beyond the end of the script throws what no serial port throws, so that the link counts as broken and
/// whoever reads returns. What is written is kept, one entry per call. Any thread may use it at any time. SManager owns
/// it once registered: it outlives the link that a test builds on it, but not the next registration.
class ScriptedSerial : public SerialIf
{
public:
    using tBytes = std::vector<unsigned char>;

    /// What one call of init was given.
    struct tInit
    {
        std::string device; ///< copied: the record only points to it
        tInitParams params;
    };

    /// What one call of readBlocking or writeBlocking was given.
    struct tCall
    {
        unsigned int len;
        int timeoutMs;
    };

    explicit ScriptedSerial(int kind = eBackendSerial)
        : mKind(kind)
    {}
    ~ScriptedSerial() override
    {
        if (mOnDelete)
            mOnDelete();
    }

    // The script of the reads. A chunk longer than a read asks for is delivered by several reads.
    void deliver(tBytes chunk) { addStep({std::move(chunk), 0, nullptr}); }
    void timeOut() { addStep({{}, 0, nullptr}); }
    void failRead() { addStep({{}, -1, nullptr}); }
    template <class Error>
    void throwOnRead(const Error& error)
    {
        addStep({{}, 0, std::make_exception_ptr(error)});
    }

    // What writes and init do from now on.
    void takeOnly(int count)
    {
        const std::lock_guard lock(mMutex);
        mTakenAtMost = count;
    }
    template <class Error>
    void throwOnWrite(const Error& error)
    {
        const std::lock_guard lock(mMutex);
        mWriteError = std::make_exception_ptr(error);
    }
    /// Writes do not return before letWritesGo: a peer that does not read.
    void holdWrites()
    {
        const std::lock_guard lock(mMutex);
        mHeld = true;
    }
    void letWritesGo()
    {
        const std::lock_guard lock(mMutex);
        mHeld = false;
        mChanged.notify_all();
    }
    template <class Error>
    void throwOnInit(const Error& error)
    {
        const std::lock_guard lock(mMutex);
        mInitError = std::make_exception_ptr(error);
    }
    void refuseInit(int result)
    {
        const std::lock_guard lock(mMutex);
        mInitResult = result;
    }
    void setOpen(bool open)
    {
        const std::lock_guard lock(mMutex);
        mOpen = open;
    }
    void onDelete(std::function<void()> action) { mOnDelete = std::move(action); }

    // What happened. The waits give up after ten seconds and return what there is then.
    std::vector<tBytes> awaitWritesBegun(std::size_t count)
    {
        std::unique_lock lock(mMutex);
        mChanged.wait_for(lock, kPatience, [&] { return mWritten.size() >= count; });
        return mWritten;
    }
    std::vector<tBytes> awaitWrites(std::size_t count)
    {
        std::unique_lock lock(mMutex);
        mChanged.wait_for(lock, kPatience, [&] { return mWritesEnded >= count; });
        return mWritten;
    }
    std::size_t writesEnded() const
    {
        const std::lock_guard lock(mMutex);
        return mWritesEnded;
    }

    /// The kernel's numbers of the threads that have written.
    std::set<pid_t> writers() const
    {
        const std::lock_guard lock(mMutex);
        return mWriters;
    }
    std::vector<tCall> reads() const
    {
        const std::lock_guard lock(mMutex);
        return mReads;
    }
    std::vector<tCall> writes() const
    {
        const std::lock_guard lock(mMutex);
        return mWrites;
    }
    std::vector<tInit> inits() const
    {
        const std::lock_guard lock(mMutex);
        return mInits;
    }
    std::size_t stepsLeft() const
    {
        const std::lock_guard lock(mMutex);
        return mSteps.size();
    }

    int getBackendType() override { return mKind; }

    int init(tInitParams* params) override
    {
        const std::lock_guard lock(mMutex);
        mInits.push_back({params->device, *params});
        if (mInitError)
            std::rethrow_exception(mInitError);
        mOpen = true;
        return mInitResult;
    }

    int readBlocking(unsigned char* buf, unsigned int len, int timeoutMs) override
    {
        const std::lock_guard lock(mMutex);
        mReads.push_back({len, timeoutMs});
        if (mSteps.empty())
            throw std::runtime_error("end of the script");
        auto& step = mSteps.front();
        int result = step.result;
        if (const auto error = step.error) {
            mSteps.pop_front();
            std::rethrow_exception(error);
        }
        if (!step.chunk.empty()) {
            const auto count = std::min<std::size_t>(len, step.chunk.size() - mDelivered);
            std::copy_n(step.chunk.begin() + static_cast<std::ptrdiff_t>(mDelivered), count, buf);
            mDelivered += count;
            result = static_cast<int>(count);
        }
        if (mDelivered == step.chunk.size()) {
            mDelivered = 0;
            mSteps.pop_front();
        }
        return result;
    }

    int writeBlocking(const unsigned char* buf, unsigned int len, int timeoutMs) override
    {
        std::unique_lock lock(mMutex);
        mWrites.push_back({len, timeoutMs});
        mWritten.emplace_back(buf, buf + len);
        mWriters.insert(gettid());
        mChanged.notify_all();
        mChanged.wait_for(lock, kPatience, [&] { return !mHeld; });
        ++mWritesEnded;
        mChanged.notify_all();
        if (mWriteError)
            std::rethrow_exception(mWriteError);
        return mTakenAtMost < 0 ? static_cast<int>(len) : std::min(mTakenAtMost, static_cast<int>(len));
    }

    bool isOpen() const override
    {
        const std::lock_guard lock(mMutex);
        return mOpen;
    }

private:
    static constexpr std::chrono::seconds kPatience{10};

    struct tStep
    {
        tBytes chunk;
        int result;
        std::exception_ptr error;
    };

    void addStep(tStep step)
    {
        const std::lock_guard lock(mMutex);
        mSteps.push_back(std::move(step));
    }

    const int mKind;
    std::function<void()> mOnDelete;
    mutable std::mutex mMutex; ///< guards all that follows
    std::condition_variable mChanged;
    std::deque<tStep> mSteps;
    std::size_t mDelivered = 0; ///< of the first step's chunk
    std::vector<tCall> mReads;
    std::vector<tCall> mWrites;
    std::vector<tInit> mInits;
    std::vector<tBytes> mWritten;
    std::set<pid_t> mWriters;
    std::size_t mWritesEnded = 0;
    std::exception_ptr mWriteError;
    std::exception_ptr mInitError;
    int mInitResult = 0;
    int mTakenAtMost = -1;
    bool mHeld = false;
    bool mOpen = false;
};
