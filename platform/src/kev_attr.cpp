// Attribute objects of the scheduler framework: thread, task and timer attributes, set one number at a
// time. Each call checks the value's length exactly, so a caller passing the wrong record is refused.
#include <cstdint>
#include <cstring>
#include <new>

#include "kev_internal.h"
#include "qvplatform/kev.h"

namespace qvkev {

namespace {

// Reads a u32 attribute value; false when the length is not exactly 4.
bool ReadU32(const void *value, uint32_t len, uint32_t *out) {
    if (len != sizeof(uint32_t)) {
        return false;
    }
    std::memcpy(out, value, sizeof(uint32_t));
    return true;
}

template <typename Attr>
Attr *Create(uint32_t magic) {
    auto *attr = new (std::nothrow) Attr{};
    if (attr != nullptr) {
        attr->magic = magic;
    }
    return attr;
}

// Every kind starts with its magic; it is read as bytes, since the object may be of another kind.
template <typename Attr>
Attr *Checked(void *attr, uint32_t magic) {
    if (attr == nullptr) {
        return nullptr;
    }
    uint32_t found = 0;
    std::memcpy(&found, attr, sizeof found);
    return found == magic ? static_cast<Attr *>(attr) : nullptr;
}

template <typename Attr>
void Destroy(void *attr, uint32_t magic) {
    Attr *typed = Checked<Attr>(attr, magic);
    if (typed != nullptr) {
        typed->magic = 0;
        delete typed;
    }
}

}  // namespace

const ThreadAttr *AsThreadAttr(const void *attr) {
    return Checked<ThreadAttr>(const_cast<void *>(attr), kThreadAttrMagic);
}

const TaskAttr *AsTaskAttr(const void *attr) {
    return Checked<TaskAttr>(const_cast<void *>(attr), kTaskAttrMagic);
}

const TimerAttr *AsTimerAttr(const void *attr) {
    return Checked<TimerAttr>(const_cast<void *>(attr), kTimerAttrMagic);
}

}  // namespace qvkev

using qvkev::TaskAttr;
using qvkev::ThreadAttr;
using qvkev::TimerAttr;

extern "C" void *KEV_ThreadCreateAttr(void) {
    return qvkev::Create<ThreadAttr>(qvkev::kThreadAttrMagic);
}

extern "C" uint32_t KEV_ThreadSetAttr(void *attr, uint32_t id, const void *value, uint32_t len) {
    ThreadAttr *thread = qvkev::Checked<ThreadAttr>(attr, qvkev::kThreadAttrMagic);
    if (thread == nullptr || value == nullptr) {
        return KEV_ERR_PARAM;
    }
    switch (id) {
        case KEV_THREAD_ATTR_NAME: {
            if (len == 0 || len > KEV_THREAD_NAME_MAX_LEN) {
                return KEV_ERR_PARAM;
            }
            // A NUL inside the bytes ends the name there.
            const auto *bytes = static_cast<const char *>(value);
            const void *nul = std::memchr(bytes, '\0', len);
            const uint32_t nameLen =
                nul != nullptr ? static_cast<uint32_t>(static_cast<const char *>(nul) - bytes) : len;
            if (nameLen == 0) {
                return KEV_ERR_PARAM;
            }
            std::memcpy(thread->name, bytes, nameLen);
            thread->name[nameLen] = '\0';
            thread->nameLen = nameLen;
            return KEV_OK;
        }
        case KEV_THREAD_ATTR_PRIORITY:
            return qvkev::ReadU32(value, len, &thread->priority) ? KEV_OK : KEV_ERR_PARAM;
        case KEV_THREAD_ATTR_OPTION:
            return qvkev::ReadU32(value, len, &thread->option) ? KEV_OK : KEV_ERR_PARAM;
        default:
            return KEV_ERR_PARAM;
    }
}

extern "C" void KEV_ThreadDestroyAttr(void *attr) {
    qvkev::Destroy<ThreadAttr>(attr, qvkev::kThreadAttrMagic);
}

extern "C" void *KEV_TaskCreateAttr(void) {
    return qvkev::Create<TaskAttr>(qvkev::kTaskAttrMagic);
}

extern "C" uint32_t KEV_TaskSetAttr(void *attr, uint32_t id, const void *value, uint32_t len) {
    TaskAttr *task = qvkev::Checked<TaskAttr>(attr, qvkev::kTaskAttrMagic);
    if (task == nullptr || value == nullptr) {
        return KEV_ERR_PARAM;
    }
    switch (id) {
        case KEV_TASK_ATTR_FUNC: {
            KEV_TASK_FUNC_S func{};
            if (len != sizeof func) {
                return KEV_ERR_PARAM;
            }
            std::memcpy(&func, value, sizeof func);
            if (func.pfnTask == nullptr) {
                return KEV_ERR_PARAM;
            }
            task->func = func;
            task->hasFunc = true;
            return KEV_OK;
        }
        case KEV_TASK_ATTR_OPTION:
            return qvkev::ReadU32(value, len, &task->option) ? KEV_OK : KEV_ERR_PARAM;
        default:
            return KEV_ERR_PARAM;
    }
}

extern "C" void KEV_TaskDestroyAttr(void *attr) {
    qvkev::Destroy<TaskAttr>(attr, qvkev::kTaskAttrMagic);
}

extern "C" void *KEV_TimerCreateAttr(void) {
    return qvkev::Create<TimerAttr>(qvkev::kTimerAttrMagic);
}

extern "C" uint32_t KEV_TimerSetAttr(void *attr, uint32_t id, const void *value, uint32_t len) {
    TimerAttr *timer = qvkev::Checked<TimerAttr>(attr, qvkev::kTimerAttrMagic);
    if (timer == nullptr || value == nullptr) {
        return KEV_ERR_PARAM;
    }
    switch (id) {
        case KEV_TIMER_ATTR_FUNC: {
            KEV_TIMER_FUNC_S func{};
            if (len != sizeof func) {
                return KEV_ERR_PARAM;
            }
            std::memcpy(&func, value, sizeof func);
            if (func.pfnTimer == nullptr) {
                return KEV_ERR_PARAM;
            }
            timer->func = func;
            timer->hasFunc = true;
            return KEV_OK;
        }
        case KEV_TIMER_ATTR_PERIODIC: {
            uint32_t periodic = 0;
            if (!qvkev::ReadU32(value, len, &periodic) || periodic > 1) {
                return KEV_ERR_PARAM;
            }
            timer->periodic = periodic;
            return KEV_OK;
        }
        case KEV_TIMER_ATTR_PERIOD_MS: {
            uint32_t periodMs = 0;
            if (!qvkev::ReadU32(value, len, &periodMs) || periodMs == 0) {
                return KEV_ERR_PARAM;
            }
            timer->periodMs = periodMs;
            timer->hasPeriod = true;
            return KEV_OK;
        }
        default:
            return KEV_ERR_PARAM;
    }
}

extern "C" void KEV_TimerDestroyAttr(void *attr) {
    qvkev::Destroy<TimerAttr>(attr, qvkev::kTimerAttrMagic);
}
