#pragma once

#include <pthread.h>

#include <cstdint>

/// No thread can be made while it lives: none gets its stack.
class NoMoreThreads
{
public:
    NoMoreThreads()
    {
        pthread_attr_init(&mBefore);
        pthread_getattr_default_np(&mBefore);
        pthread_attr_t huge;
        pthread_attr_init(&huge);
        pthread_attr_setstacksize(&huge, SIZE_MAX / 8 * 7); // more than a 32-bit program can find under an emulator
        pthread_setattr_default_np(&huge);
        pthread_attr_destroy(&huge);
    }
    ~NoMoreThreads()
    {
        pthread_setattr_default_np(&mBefore);
        pthread_attr_destroy(&mBefore);
    }
    NoMoreThreads(const NoMoreThreads&) = delete;
    NoMoreThreads& operator=(const NoMoreThreads&) = delete;

private:
    pthread_attr_t mBefore{};
};
