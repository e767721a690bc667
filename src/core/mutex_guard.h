// Scope guards for the agent's pthread mutexes: lock on construction, unlock on every path out.
#ifndef QV_CORE_MUTEX_GUARD_H
#define QV_CORE_MUTEX_GUARD_H

#include <pthread.h>

namespace qv {

class MutexGuard {
public:
    explicit MutexGuard(pthread_mutex_t &mutex) : mutex_(mutex), locked_(pthread_mutex_lock(&mutex_) == 0) {}
    ~MutexGuard() {
        if (locked_) pthread_mutex_unlock(&mutex_);
    }
    MutexGuard(const MutexGuard &) = delete;
    MutexGuard &operator=(const MutexGuard &) = delete;

    // False when the lock could not be taken (the guard then releases nothing).
    bool locked() const { return locked_; }

private:
    pthread_mutex_t &mutex_;
    bool locked_;
};

// For a mutex that many threads take for a few instructions at a time (the memory mutex, a send list
// on the report path): tries it a bounded number of times, pausing between tries, before it blocks.
// A waiter that went to sleep at once would cost itself and the holder a kernel round trip each, for
// a wait of a few dozen nanoseconds; an uncontended lock costs the same single try as a plain one.
class BriefMutexGuard {
public:
    explicit BriefMutexGuard(pthread_mutex_t &mutex) : mutex_(mutex), locked_(Acquire(mutex)) {}
    ~BriefMutexGuard() {
        if (locked_) pthread_mutex_unlock(&mutex_);
    }
    BriefMutexGuard(const BriefMutexGuard &) = delete;
    BriefMutexGuard &operator=(const BriefMutexGuard &) = delete;

private:
    static constexpr int kTries = 64;

    static void Pause() {
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#elif defined(__aarch64__)
        asm volatile("yield");
#endif
    }

    static bool Acquire(pthread_mutex_t &mutex) {
        for (int i = 0; i < kTries; ++i) {
            if (pthread_mutex_trylock(&mutex) == 0) return true;
            Pause();
        }
        return pthread_mutex_lock(&mutex) == 0;
    }

    pthread_mutex_t &mutex_;
    bool locked_;
};

}  // namespace qv

#endif
