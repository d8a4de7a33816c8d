#pragma once

/// While one of these lives, a new thread runs to its end inside the call that starts it. A thread under the sanitizers
/// costs a hundred times what a request costs, and what a target does then depends on its input alone. A wait with a
/// time limit is over at once, and its time is skipped. A thread that waits on a semaphore for its starter cannot be
/// had.
class InlineThreads
{
public:
    InlineThreads();
    ~InlineThreads();
    InlineThreads(const InlineThreads&) = delete;
    InlineThreads& operator=(const InlineThreads&) = delete;
};
