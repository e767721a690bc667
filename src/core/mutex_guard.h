// Scope guard for the agent's pthread mutexes: locks on construction, unlocks on every path out.
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

}  // namespace qv

#endif
