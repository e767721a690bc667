// The local log file's mechanics: opening it for the agent, the whole-file record lock, the head, and
// storing a line in the ring, wrapping at the file's maximum size.
//
// One line costs the lock, a read of the head, a write of the line, a write of the head and the
// unlock; the head and the line are read and written at their offsets (pread/pwrite), so no seek is
// needed. The wrap adds one ftruncate.
#include "locallog/log_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "qvagent/qv_agent_bootlog.h"
#include "qvagent/qv_agent_wire.h"

pthread_mutex_t qv::plog::g_writerMutex = PTHREAD_MUTEX_INITIALIZER;

namespace {

constexpr char kRefusedPath[] = "monitor_log.buffer";
constexpr size_t kResolvedBuffer = 512;

// Releases the whole-file lock on every path out of the scope that took it.
class FileLock {
public:
    explicit FileLock(int fd)
        : fd_(fd), held_(QV_AGENT_DBG_LockReg(fd, F_SETLKW, F_WRLCK, 0, SEEK_SET, 0) == QV_AGENT_PLOG_OK) {}
    ~FileLock() {
        if (held_) QV_AGENT_DBG_LockReg(fd_, F_SETLK, F_UNLCK, 0, SEEK_SET, 0);
    }
    FileLock(const FileLock &) = delete;
    FileLock &operator=(const FileLock &) = delete;
    bool held() const { return held_; }

private:
    int fd_;
    bool held_;
};

// Moves a descriptor that came out as 0 (standard input was closed) to a higher number, so that the
// descriptor variable never has to hold 0. The result is the descriptor to keep, or -1.
int AvoidDescriptorZero(int fd) {
    if (fd != 0) return fd;
    const int moved = ::fcntl(fd, F_DUPFD_CLOEXEC, 1);
    ::close(fd);
    return moved;
}

// A head whose offsets lie beyond the data area is damaged; it counts as no head, like one that cannot
// be read, so that the ring starts again at the front instead of writing past the maximum.
QvAgentPlogHead ReadUsableHead(int fd, uint32_t dataMax) {
    QvAgentPlogHead head{};
    if (QV_AGENT_PLOG_ReadHead(fd, &head) != static_cast<ssize_t>(sizeof head) || head.uiWriteOffset > dataMax ||
        head.uiWrapEnd > dataMax) {
        return QvAgentPlogHead{};
    }
    return head;
}

// Writes the zero head into a file that has none yet. Another process may have created the file and
// stored lines since this one found it missing; those lines are kept.
uint32_t WriteFirstHead(int fd) {
    const FileLock lock(fd);
    if (!lock.held()) return QV_AGENT_PLOG_FAILED;
    struct stat st;
    if (::fstat(fd, &st) == 0 && st.st_size >= static_cast<off_t>(QV_PLOG_HEAD_LEN)) return QV_AGENT_PLOG_OK;
    const QvAgentPlogHead zero{};
    QV_AGENT_PLOG_WriteHead(fd, &zero);  // a head that did not reach the file reads as zero later
    return QV_AGENT_PLOG_OK;
}

}  // namespace

void qv::plog::ReleaseDescriptor(int *fd) {
    if (HoldsDescriptor(*fd)) ::close(*fd);
    *fd = -1;
}

uint32_t QV_AGENT_LOG_OpenFile(const char *path, uint32_t flags, int *fd) {
    if (path == nullptr || fd == nullptr || std::strstr(path, kRefusedPath) != nullptr) return QV_AGENT_PLOG_FAILED;
    char resolved[kResolvedBuffer];
    if (QV_AGENT_GetAbsolutePathAndFileName(path, resolved, sizeof resolved) != QV_AGENT_PATH_OK) {
        return QV_AGENT_PLOG_FAILED;
    }
    // O_CLOEXEC closes the window between open() and the flag change for services that fork and exec
    // from other threads; the flag is still set explicitly, which fails if the descriptor is unusable.
    *fd = AvoidDescriptorZero(::open(path, static_cast<int>(flags) | O_CLOEXEC, QV_AGENT_LOG_FILE_MODE));
    if (*fd < 0) return QV_AGENT_PLOG_ERR_OPEN;
    if (QV_AGENT_LOG_SetCloexecFlag(*fd) < 0) {
        ::close(*fd);
        *fd = 0;
        return QV_AGENT_PLOG_FAILED;
    }
    return QV_AGENT_PLOG_OK;
}

int32_t QV_AGENT_LOG_SetCloexecFlag(int fd) {
    const int flags = ::fcntl(fd, F_GETFD);
    if (flags < 0) return flags;
    return ::fcntl(fd, F_SETFD, flags | FD_CLOEXEC);
}

uint32_t QV_AGENT_DBG_LockReg(int fd, int32_t command, int16_t type, off_t start, int16_t whence, off_t length) {
    struct flock lock{};
    lock.l_type = type;
    lock.l_whence = whence;
    lock.l_start = start;
    lock.l_len = length;
    return ::fcntl(fd, command, &lock) < 0 ? QV_AGENT_PLOG_ERR_LOCK : QV_AGENT_PLOG_OK;
}

ssize_t QV_AGENT_PLOG_WriteHead(int fd, const QvAgentPlogHead *head) {
    if (head == nullptr) return -1;
    return ::pwrite(fd, head, sizeof *head, 0);
}

ssize_t QV_AGENT_PLOG_ReadHead(int fd, QvAgentPlogHead *head) {
    if (head == nullptr) return -1;
    return ::pread(fd, head, sizeof *head, 0);
}

ssize_t QV_AGENT_LOG_Write(int fd, uint32_t length, const void *data) {
    if (fd < 0 || data == nullptr) return -1;
    return ::write(fd, data, length);
}

uint32_t QV_AGENT_LOG_CheckAndCreateFile(const char *path, int *fd) {
    if (path == nullptr || fd == nullptr) return QV_AGENT_PLOG_FAILED;
    if (QV_AGENT_IsFileExist(path) == 0) {
        qv::plog::ReleaseDescriptor(fd);  // the file it was open on has gone
        if (QV_AGENT_LOG_OpenFile(path, O_RDWR | O_CREAT, fd) != QV_AGENT_PLOG_OK) return QV_AGENT_PLOG_FAILED;
        return WriteFirstHead(*fd);
    }
    if (!qv::plog::HoldsDescriptor(*fd) && QV_AGENT_LOG_OpenFile(path, O_RDWR | O_CREAT, fd) != QV_AGENT_PLOG_OK) {
        return QV_AGENT_PLOG_FAILED;
    }
    return QV_AGENT_PLOG_OK;
}

// A line that does not fit into an empty ring is refused. The wrap happens before a line that would
// end beyond maxSize; a line that reaches or passes the end of the valid data after a wrap makes its
// own end the new end of the valid data.
uint32_t QV_AGENT_PLOG_Buff2File(int fd, const uint8_t *line, uint32_t length, uint32_t maxSize) {
    if (line == nullptr || maxSize < QV_PLOG_HEAD_LEN || length > maxSize - QV_PLOG_HEAD_LEN) {
        return QV_AGENT_PLOG_FAILED;
    }
    const uint32_t dataMax = maxSize - QV_PLOG_HEAD_LEN;
    const FileLock lock(fd);
    if (!lock.held()) return QV_AGENT_PLOG_FAILED;

    QvAgentPlogHead head = ReadUsableHead(fd, dataMax);
    uint32_t pos = head.uiWriteOffset;
    if (uint64_t{pos} + length > dataMax) {
        if (::ftruncate(fd, static_cast<off_t>(maxSize)) != 0) return QV_AGENT_PLOG_FAILED;
        head.uiWrapEnd = pos;
        pos = 0;
    }
    if (::pwrite(fd, line, length, static_cast<off_t>(QV_PLOG_HEAD_LEN + pos)) != static_cast<ssize_t>(length)) {
        return QV_AGENT_PLOG_FAILED;
    }
    head.uiWriteOffset = pos + length;
    if (head.uiWrapEnd != 0 && head.uiWriteOffset >= head.uiWrapEnd) {
        head.uiWrapEnd = head.uiWriteOffset;
        head.uiWriteOffset = 0;
    }
    QV_AGENT_PLOG_WriteHead(fd, &head);  // unexamined: a lost head costs the line, never the file
    return QV_AGENT_PLOG_OK;
}
