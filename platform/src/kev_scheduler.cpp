// Scheduler threads of the scheduler framework: KEV_ThreadCreate, KEV_ThreadCtrl, the event loop that
// calls tasks and timers, and the test controls that stop threads and read what they hold.
//
// Each scheduler thread owns an epoll set. Watched descriptors and timer descriptors are registered
// under a token that is never reused, and the loop looks every collected event's token up again under
// the scheduler's mutex before calling anything: an event collected for a registration removed (or
// removed and added anew under the same number) in the meantime is dropped. While a callback runs,
// the scheduler records its token; a removal on another thread waits until that callback has
// returned, a removal on the loop thread itself takes effect at once. Callbacks run without the
// mutex held, so they may register and remove freely.
#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "kev_internal.h"
#include "qvplatform/kev.h"
#include "qvplatform_testctl.h"

namespace qvkev {

enum class EntryKind { kDescriptor, kTimer };

// One registration on a scheduler: a watched descriptor with its task, or a timer with its callback.
struct Entry {
    EntryKind kind;
    int fd;           // the watched descriptor (the caller's), or the timer descriptor (ours)
    uint32_t events;  // KEV_EVENT_* asked for (descriptors)
    uint32_t option;  // KEV_TASK_ATTR_OPTION (descriptors)
    KEV_TASK_FUNC_S task;
    KEV_TIMER_FUNC_S timer;
    uint32_t periodic;
    uint32_t periodMs;
};

struct Scheduler {
    uint64_t handle = 0;
    int epfd = -1;
    int wakefd = -1;  // written once to make the loop see the stop request
    pthread_t thread{};
    char name[KEV_THREAD_NAME_MAX_LEN + 1] = {};  // the name attribute, empty when none was set
    uint32_t priority = 0;
    uint32_t option = 0;

    std::mutex mutex;  // guards everything below, and the descriptors' registration in epfd
    std::condition_variable callbackDone;
    std::unordered_map<uint64_t, Entry> entries;  // by token
    std::unordered_map<int, uint64_t> byFd;       // watched descriptors: number -> token
    uint64_t running = 0;                         // token whose callback runs now, 0 for none
    bool stopping = false;
};

namespace {

constexpr uint64_t kWakeToken = 0;  // tokens of registrations start at 1
constexpr int kEventBatch = 32;
constexpr char kDefaultName[] = "kev_sched";

// The thread handles in use. Kept on the heap and never destroyed: scheduler threads run until the
// process ends, and may still be running while static objects are torn down.
struct Registry {
    std::mutex mutex;
    std::unordered_map<uint64_t, std::shared_ptr<Scheduler>> threads;
};

Registry &Threads() {
    static Registry *registry = new Registry;
    return *registry;
}

constinit std::atomic<uint64_t> g_nextHandle{1};
constinit std::atomic<uint32_t> g_failThreadCreate{0};

// The scheduler whose loop runs on this thread, if any.
thread_local Scheduler *t_loopOf = nullptr;

// The epoll bits that watch for a KEV_EVENT_* mask. Errors and hang-ups are always reported by the
// kernel; KEV_EVENT_HUP also asks for the peer's half-close of a stream.
uint32_t ToEpoll(uint32_t events) {
    uint32_t bits = 0;
    if ((events & KEV_EVENT_READ) != 0) bits |= EPOLLIN;
    if ((events & KEV_EVENT_WRITE) != 0) bits |= EPOLLOUT;
    if ((events & KEV_EVENT_HUP) != 0) bits |= EPOLLRDHUP;
    return bits;
}

// The KEV_EVENT_* mask handed to a task for the epoll bits that occurred.
uint32_t ToKev(uint32_t occurred, uint32_t wanted) {
    uint32_t mask = 0;
    if ((occurred & EPOLLIN) != 0 && (wanted & KEV_EVENT_READ) != 0) mask |= KEV_EVENT_READ;
    if ((occurred & EPOLLOUT) != 0 && (wanted & KEV_EVENT_WRITE) != 0) mask |= KEV_EVENT_WRITE;
    if ((occurred & EPOLLERR) != 0) {
        // Reading is what collects a pending error; a reader that waits for data must see it.
        mask |= KEV_EVENT_ERR | (wanted & KEV_EVENT_READ);
    }
    if ((occurred & (EPOLLHUP | EPOLLRDHUP)) != 0) mask |= KEV_EVENT_HUP;
    return mask;
}

bool Watch(int epfd, int op, int fd, uint32_t bits, uint64_t token) {
    epoll_event event{};
    event.events = bits;
    event.data.u64 = token;
    return ::epoll_ctl(epfd, op, fd, &event) == 0;
}

// Unlinks a registration, closes a timer's descriptor and, off the loop thread, waits until a callback
// of the registration in progress has returned. unwatch false leaves the epoll set alone (the number
// already watches another descriptor). Caller holds sched.mutex through lock.
void RemoveLocked(Scheduler &sched, std::unique_lock<std::mutex> &lock, uint64_t token, bool unwatch) {
    const auto it = sched.entries.find(token);
    const Entry entry = it->second;
    sched.entries.erase(it);
    if (unwatch) {
        // A descriptor closed before its removal is already gone from the set: ignore the failure.
        static_cast<void>(::epoll_ctl(sched.epfd, EPOLL_CTL_DEL, entry.fd, nullptr));
    }
    if (entry.kind == EntryKind::kDescriptor) {
        sched.byFd.erase(entry.fd);
    } else {
        ::close(entry.fd);
    }
    if (t_loopOf != &sched) {
        sched.callbackDone.wait(lock, [&] { return sched.running != token; });
    }
}

// Calls the callback of one collected event, unless its registration is gone. False once the
// scheduler is stopping.
bool Dispatch(Scheduler &sched, const epoll_event &event) {
    std::unique_lock lock(sched.mutex);
    if (sched.stopping) {
        return false;
    }
    const uint64_t token = event.data.u64;
    const auto it = sched.entries.find(token);
    if (it == sched.entries.end()) {
        return true;
    }
    const Entry call = it->second;
    uint32_t mask = 0;
    uint64_t expirations = 0;
    if (call.kind == EntryKind::kTimer) {
        // Nothing to read when the timer was started afresh since the event was collected.
        if (::read(call.fd, &expirations, sizeof expirations) != static_cast<ssize_t>(sizeof expirations)) {
            return true;
        }
    } else {
        mask = ToKev(event.events, call.events);
        if (mask == 0) {
            return true;
        }
    }
    sched.running = token;
    lock.unlock();
    if (call.kind == EntryKind::kTimer) {
        static_cast<void>(call.timer.pfnTimer(token, expirations, call.timer.pArg));
    } else {
        static_cast<void>(call.task.pfnTask(&mask, call.task.pArg));
    }
    lock.lock();
    sched.running = 0;
    sched.callbackDone.notify_all();
    return true;
}

void *LoopMain(void *arg) {
    auto *sched = static_cast<Scheduler *>(arg);
    t_loopOf = sched;
    char visible[KEV_THREAD_NAME_VISIBLE_LEN + 1] = {};
    const char *name = sched->name[0] != '\0' ? sched->name : kDefaultName;
    std::memcpy(visible, name, strnlen(name, KEV_THREAD_NAME_VISIBLE_LEN));  // the kernel keeps 15 characters
    static_cast<void>(::pthread_setname_np(::pthread_self(), visible));
    epoll_event events[kEventBatch];
    for (;;) {
        const int count = ::epoll_wait(sched->epfd, events, kEventBatch, -1);
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            return nullptr;  // the set is unusable; a stop request still joins the thread
        }
        for (int i = 0; i < count; ++i) {
            if (!Dispatch(*sched, events[i])) {
                return nullptr;
            }
        }
    }
}

void CloseAll(Scheduler &sched) {
    for (const auto &[token, entry] : sched.entries) {
        if (entry.kind == EntryKind::kTimer) {
            ::close(entry.fd);
        }
    }
    sched.entries.clear();
    sched.byFd.clear();
    if (sched.epfd >= 0) ::close(sched.epfd);
    if (sched.wakefd >= 0) ::close(sched.wakefd);
    sched.epfd = -1;
    sched.wakefd = -1;
}

// Starts the loop thread with every signal blocked, so that the process's signals go to its own
// threads and never interrupt a callback.
bool StartThread(Scheduler &sched) {
    sigset_t all;
    sigset_t previous;
    sigfillset(&all);
    if (::pthread_sigmask(SIG_SETMASK, &all, &previous) != 0) {
        return false;
    }
    const int rc = ::pthread_create(&sched.thread, nullptr, LoopMain, &sched);
    static_cast<void>(::pthread_sigmask(SIG_SETMASK, &previous, nullptr));
    return rc == 0;
}

uint32_t Stop(const std::shared_ptr<Scheduler> &sched) {
    {
        const std::lock_guard lock(sched->mutex);
        sched->stopping = true;
    }
    const uint64_t one = 1;
    static_cast<void>(::write(sched->wakefd, &one, sizeof one));
    ::pthread_join(sched->thread, nullptr);
    ForgetTimersOf(sched.get());
    const std::lock_guard lock(sched->mutex);
    CloseAll(*sched);
    return KEV_OK;
}

// Takes a thread out of the registry unless it is the calling thread's own loop.
std::shared_ptr<Scheduler> TakeForStop(uint64_t thread) {
    Registry &registry = Threads();
    const std::lock_guard lock(registry.mutex);
    const auto it = registry.threads.find(thread);
    if (it == registry.threads.end() || it->second.get() == t_loopOf) {
        return nullptr;
    }
    std::shared_ptr<Scheduler> sched = std::move(it->second);
    registry.threads.erase(it);
    return sched;
}

uint32_t Add(Scheduler &sched, int32_t fd, const KEV_CTRL_S *rec) {
    if (rec == nullptr || fd < 0 || rec->uiEvents == 0 || (rec->uiEvents & ~KEV_EVENT_ALL) != 0) {
        return KEV_ERR_PARAM;
    }
    const TaskAttr *task = AsTaskAttr(rec->pTaskAttr);
    if (task == nullptr || !task->hasFunc) {
        return KEV_ERR_PARAM;
    }
    std::unique_lock lock(sched.mutex);
    if (sched.stopping) {
        return KEV_ERR_NOT_FOUND;
    }
    const uint64_t token = NextHandle();
    if (!Watch(sched.epfd, EPOLL_CTL_ADD, fd, ToEpoll(rec->uiEvents), token)) {
        return errno == EEXIST ? KEV_ERR_EXIST : KEV_ERR_SYSTEM;
    }
    const auto stale = sched.byFd.find(fd);
    if (stale != sched.byFd.end()) {
        // The kernel took the number afresh, so the descriptor registered under it was closed without
        // removal and the kernel dropped it: forget that registration, keep the new watch.
        RemoveLocked(sched, lock, stale->second, false);
        if (sched.stopping) {
            return KEV_ERR_NOT_FOUND;
        }
    }
    Entry entry{};
    entry.kind = EntryKind::kDescriptor;
    entry.fd = fd;
    entry.events = rec->uiEvents;
    entry.option = task->option;
    entry.task = task->func;
    sched.entries.emplace(token, entry);
    sched.byFd.emplace(fd, token);
    return KEV_OK;
}

uint32_t Del(Scheduler &sched, int32_t fd) {
    std::unique_lock lock(sched.mutex);
    if (sched.stopping) {
        return KEV_ERR_NOT_FOUND;
    }
    const auto it = sched.byFd.find(fd);
    if (it == sched.byFd.end()) {
        return KEV_ERR_NOT_FOUND;
    }
    RemoveLocked(sched, lock, it->second, true);
    return KEV_OK;
}

}  // namespace

uint64_t NextHandle() {
    return g_nextHandle.fetch_add(1);
}

std::shared_ptr<Scheduler> FindScheduler(uint64_t thread) {
    Registry &registry = Threads();
    const std::lock_guard lock(registry.mutex);
    const auto it = registry.threads.find(thread);
    return it != registry.threads.end() ? it->second : nullptr;
}

uint32_t AddTimer(Scheduler &sched, uint64_t timer, const TimerAttr &attr) {
    const int fd = ::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    if (fd < 0) {
        return KEV_ERR_SYSTEM;
    }
    const std::lock_guard lock(sched.mutex);
    if (sched.stopping) {
        ::close(fd);
        return KEV_ERR_NOT_FOUND;
    }
    if (!Watch(sched.epfd, EPOLL_CTL_ADD, fd, EPOLLIN, timer)) {
        ::close(fd);
        return KEV_ERR_SYSTEM;
    }
    Entry entry{};
    entry.kind = EntryKind::kTimer;
    entry.fd = fd;
    entry.timer = attr.func;
    entry.periodic = attr.periodic;
    entry.periodMs = attr.periodMs;
    sched.entries.emplace(timer, entry);
    return KEV_OK;
}

uint32_t StartTimer(Scheduler &sched, uint64_t timer) {
    const std::lock_guard lock(sched.mutex);
    const auto it = sched.entries.find(timer);
    if (sched.stopping || it == sched.entries.end() || it->second.kind != EntryKind::kTimer) {
        return KEV_ERR_NOT_FOUND;
    }
    const Entry &entry = it->second;
    itimerspec arm{};
    arm.it_value.tv_sec = static_cast<time_t>(entry.periodMs / 1000u);
    arm.it_value.tv_nsec = static_cast<long>(entry.periodMs % 1000u) * 1000000L;
    if (entry.periodic != 0) {
        arm.it_interval = arm.it_value;
    }
    return ::timerfd_settime(entry.fd, 0, &arm, nullptr) == 0 ? KEV_OK : KEV_ERR_SYSTEM;
}

uint32_t RemoveEntry(Scheduler &sched, uint64_t token) {
    std::unique_lock lock(sched.mutex);
    if (sched.stopping || sched.entries.count(token) == 0) {
        return KEV_ERR_NOT_FOUND;
    }
    RemoveLocked(sched, lock, token, true);
    return KEV_OK;
}

}  // namespace qvkev

using qvkev::Scheduler;

extern "C" uint64_t KEV_ThreadCreate(void *attr) {
    const qvkev::ThreadAttr *threadAttr = qvkev::AsThreadAttr(attr);
    if (attr != nullptr && threadAttr == nullptr) {
        return 0;
    }
    if (qvkev::g_failThreadCreate.exchange(0) != 0) {
        return 0;
    }
    auto sched = std::make_shared<Scheduler>();
    if (threadAttr != nullptr) {
        std::memcpy(sched->name, threadAttr->name, sizeof sched->name);
        sched->priority = threadAttr->priority;
        sched->option = threadAttr->option;
    }
    sched->epfd = ::epoll_create1(EPOLL_CLOEXEC);
    sched->wakefd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (sched->epfd < 0 || sched->wakefd < 0 ||
        !qvkev::Watch(sched->epfd, EPOLL_CTL_ADD, sched->wakefd, EPOLLIN, qvkev::kWakeToken) ||
        !qvkev::StartThread(*sched)) {
        qvkev::CloseAll(*sched);
        return 0;
    }
    sched->handle = qvkev::NextHandle();
    qvkev::Registry &registry = qvkev::Threads();
    const std::lock_guard lock(registry.mutex);
    registry.threads.emplace(sched->handle, sched);
    return sched->handle;
}

extern "C" uint32_t KEV_ThreadCtrl(uint64_t thread, uint32_t op, int32_t fd, KEV_CTRL_S *rec) {
    if (op != KEV_CTRL_ADD && op != KEV_CTRL_DEL) {
        return KEV_ERR_PARAM;
    }
    const std::shared_ptr<Scheduler> sched = qvkev::FindScheduler(thread);
    if (sched == nullptr) {
        return KEV_ERR_NOT_FOUND;
    }
    return op == KEV_CTRL_ADD ? qvkev::Add(*sched, fd, rec) : qvkev::Del(*sched, fd);
}

extern "C" void QVPLAT_TestKevFailThreadCreate(uint32_t on) {
    qvkev::g_failThreadCreate.store(on != 0 ? 1u : 0u);
}

extern "C" uint32_t QVPLAT_TestKevStopThread(uint64_t thread) {
    const std::shared_ptr<Scheduler> sched = qvkev::TakeForStop(thread);
    return sched != nullptr ? qvkev::Stop(sched) : KEV_ERR_NOT_FOUND;
}

extern "C" uint32_t QVPLAT_TestKevStopAll(void) {
    std::vector<uint64_t> handles;
    {
        qvkev::Registry &registry = qvkev::Threads();
        const std::lock_guard lock(registry.mutex);
        for (const auto &[handle, sched] : registry.threads) {
            handles.push_back(handle);
        }
    }
    uint32_t stopped = 0;
    for (const uint64_t handle : handles) {
        if (QVPLAT_TestKevStopThread(handle) == KEV_OK) {
            ++stopped;
        }
    }
    return stopped;
}

extern "C" uint32_t QVPLAT_TestKevLiveThreads(void) {
    qvkev::Registry &registry = qvkev::Threads();
    const std::lock_guard lock(registry.mutex);
    return static_cast<uint32_t>(registry.threads.size());
}

extern "C" uint32_t QVPLAT_TestKevThreadInfo(uint64_t thread, QVPLAT_KEV_THREAD_INFO_S *info) {
    const std::shared_ptr<Scheduler> sched = qvkev::FindScheduler(thread);
    if (sched == nullptr || info == nullptr) {
        return KEV_ERR_NOT_FOUND;
    }
    *info = QVPLAT_KEV_THREAD_INFO_S{};
    static_assert(sizeof info->szName >= sizeof sched->name, "the whole name fits");
    std::memcpy(info->szName, sched->name, sizeof sched->name);
    info->uiPriority = sched->priority;
    info->uiOption = sched->option;
    const std::lock_guard lock(sched->mutex);
    info->uiDescriptors = static_cast<uint32_t>(sched->byFd.size());
    info->uiTimers = static_cast<uint32_t>(sched->entries.size() - sched->byFd.size());
    return KEV_OK;
}

extern "C" uint32_t QVPLAT_TestKevDescriptorInfo(uint64_t thread, int32_t fd, uint32_t *events,
                                                 uint32_t *option) {
    const std::shared_ptr<Scheduler> sched = qvkev::FindScheduler(thread);
    if (sched == nullptr) {
        return KEV_ERR_NOT_FOUND;
    }
    const std::lock_guard lock(sched->mutex);
    const auto it = sched->byFd.find(fd);
    if (it == sched->byFd.end()) {
        return KEV_ERR_NOT_FOUND;
    }
    const qvkev::Entry &entry = sched->entries.at(it->second);
    if (events != nullptr) *events = entry.events;
    if (option != nullptr) *option = entry.option;
    return KEV_OK;
}
