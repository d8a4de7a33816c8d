#pragma once

#include <semaphore.h>

#include <cerrno>

/// Counts what one thread has ready for another: a system call is made only to sleep and to wake a sleeper. The
/// standard's own spins before it sleeps, and a condition variable's mutex costs one more call for each wake-up.
class Semaphore
{
public:
    explicit Semaphore(unsigned int count) { sem_init(&mSemaphore, 0, count); }
    ~Semaphore() { sem_destroy(&mSemaphore); }
    Semaphore(const Semaphore&) = delete;
    Semaphore& operator=(const Semaphore&) = delete;

    void post() { sem_post(&mSemaphore); }

    /// Takes one, however long it takes until there is one.
    void wait()
    {
        while (sem_wait(&mSemaphore) != 0 && errno == EINTR) {
        }
    }

private:
    sem_t mSemaphore;
};
