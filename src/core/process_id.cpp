// The calling process's id, kept between reports and forgotten in a forked child.
#include "core/process_id.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>

namespace qv {

namespace {

std::atomic<uint32_t> g_pid{0};  // 0: not read yet
pthread_once_t g_forkHandlerOnce = PTHREAD_ONCE_INIT;

void ForgetInChild() { g_pid.store(0, std::memory_order_relaxed); }
void InstallForkHandler() { pthread_atfork(nullptr, nullptr, ForgetInChild); }

}  // namespace

uint32_t ProcessId() {
    uint32_t pid = g_pid.load(std::memory_order_relaxed);
    if (pid == 0) {
        pthread_once(&g_forkHandlerOnce, InstallForkHandler);
        pid = static_cast<uint32_t>(::getpid());
        g_pid.store(pid, std::memory_order_relaxed);
    }
    return pid;
}

}  // namespace qv
