// Scope guard for the agent's pthread mutexes: locks on construction, unlocks on every path out.
#ifndef QV_CORE_MUTEX_GUARD_H
#define QV_CORE_MUTEX_GUARD_H

#include <pthread.h>

namespace qv {

class MutexGuard {
public:
    explicit MutexGuard(pthread_mutex_t &mutex) : mutex_(mutex) { pthread_mutex_lock(&mutex_); }
    ~MutexGuard() { pthread_mutex_unlock(&mutex_); }
    MutexGuard(const MutexGuard &) = delete;
    MutexGuard &operator=(const MutexGuard &) = delete;

private:
    pthread_mutex_t &mutex_;
};

}  // namespace qv

#endif
