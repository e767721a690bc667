// Transfers between the blackbox file and memory: whole-file offsets with their range checks, the
// data area with its wrap, and the 32-byte head. Every transfer is one positioned system call (two
// for a span that wraps), so no file position is shared between callers.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>

#include "blackbox/blackbox.h"

namespace {

constexpr int kWriteAttempts = 5;

// Writes all len bytes at offset, continuing after short writes; false after five failed calls.
bool WriteAll(int32_t fd, uint64_t offset, uint32_t len, const uint8_t *buf) {
    uint32_t done = 0;
    for (int failures = 0; done < len && failures < kWriteAttempts;) {
        const ssize_t n = ::pwrite(fd, buf + done, len - done, static_cast<off_t>(offset + done));
        if (n > 0) {
            done += static_cast<uint32_t>(n);
        } else if (n == 0 || errno != EINTR) {
            ++failures;
        }
    }
    return done == len;
}

bool ReadAll(int32_t fd, uint64_t offset, uint32_t len, uint8_t *buf) {
    return ::pread(fd, buf, len, static_cast<off_t>(offset)) == static_cast<ssize_t>(len);
}

// The range check of the whole-file transfers: 0, or the negative code that refuses the transfer.
int32_t CheckRange(int32_t fd, uint32_t offset, uint32_t len, const void *buf) {
    if (buf == nullptr || offset > UINT32_MAX - len) return QV_BOX_ERR_RANGE;
    struct stat st;
    if (::fstat(fd, &st) != 0) return QV_BOX_ERR_FSTAT;
    if (uint64_t{offset} + len > static_cast<uint64_t>(st.st_size)) return QV_BOX_ERR_BEYOND;
    return 0;
}

// Where a span of the data area lies in the file: one piece, or two when it passes the area's end.
struct Pieces {
    uint64_t firstOffset;
    uint32_t firstLen;
    uint32_t restLen;  // at the data area's start
};

bool SplitSpan(const QvAgentBoxHead *head, uint32_t pos, uint32_t len, Pieces &out) {
    if (head == nullptr || pos >= head->uiCapacity || len > head->uiCapacity) return false;
    out.firstOffset = uint64_t{QV_BOX_HEAD_LEN} + pos;
    out.firstLen = len <= head->uiCapacity - pos ? len : head->uiCapacity - pos;
    out.restLen = len - out.firstLen;
    return true;
}

}  // namespace

int32_t QV_AGENT_BoxWrite(int32_t fd, uint32_t offset, uint32_t len, const uint8_t *buf) {
    const int32_t rc = CheckRange(fd, offset, len, buf);
    if (rc != 0) return rc;
    return WriteAll(fd, offset, len, buf) ? static_cast<int32_t>(len) : QV_BOX_ERR_WRITE;
}

int32_t QV_AGENT_BoxRead(int32_t fd, uint32_t offset, uint32_t len, uint8_t *buf) {
    const int32_t rc = CheckRange(fd, offset, len, buf);
    if (rc != 0) return rc;
    const ssize_t n = ::pread(fd, buf, len, static_cast<off_t>(offset));
    return n < 0 ? QV_BOX_ERR_READ : static_cast<int32_t>(n);
}

uint32_t QV_AGENT_BoxWriteData(QvAgentLogBox *box, const QvAgentBoxHead *head, uint32_t pos, uint32_t len,
                               const uint8_t *buf) {
    Pieces p;
    if (box == nullptr || buf == nullptr || !SplitSpan(head, pos, len, p)) return 0;
    if (!WriteAll(box->iFd, p.firstOffset, p.firstLen, buf)) return 0;
    if (p.restLen != 0 && !WriteAll(box->iFd, QV_BOX_HEAD_LEN, p.restLen, buf + p.firstLen)) return 0;
    return len;
}

uint32_t QV_AGENT_BoxReadData(QvAgentLogBox *box, const QvAgentBoxHead *head, uint32_t pos, uint32_t len,
                              uint8_t *buf) {
    Pieces p;
    if (box == nullptr || buf == nullptr || !SplitSpan(head, pos, len, p)) return 0;
    if (!ReadAll(box->iFd, p.firstOffset, p.firstLen, buf)) return 0;
    if (p.restLen != 0 && !ReadAll(box->iFd, QV_BOX_HEAD_LEN, p.restLen, buf + p.firstLen)) return 0;
    return len;
}

uint32_t QV_AGENT_ReadBlackboxHead(QvAgentLogBox *box, QvAgentBoxHead *head) {
    if (box == nullptr || head == nullptr) return QV_AGENT_ERR_FAILED;
    return ReadAll(box->iFd, 0, QV_BOX_HEAD_LEN, reinterpret_cast<uint8_t *>(head)) ? QV_AGENT_OK
                                                                                   : QV_AGENT_ERR_FAILED;
}

uint32_t QV_AGENT_WriteBlackboxHead(QvAgentLogBox *box, const QvAgentBoxHead *head) {
    if (box == nullptr || head == nullptr) return QV_AGENT_ERR_FAILED;
    return WriteAll(box->iFd, 0, QV_BOX_HEAD_LEN, reinterpret_cast<const uint8_t *>(head)) ? QV_AGENT_OK
                                                                                         : QV_AGENT_ERR_FAILED;
}

void QV_AGENT_BoxHeadInit(QvAgentLogBox *box, QvAgentBoxHead *head) {
    if (box == nullptr || head == nullptr) return;
    *head = QvAgentBoxHead{};
    head->uiValid = QV_BOX_HEAD_VALID;
    head->uiCapacity = box->uiBoxSize;
}

uint32_t QV_AGENT_BoxCheckValid(QvAgentLogBox *box, const QvAgentBoxHead *head) {
    if (box == nullptr || head == nullptr) return QV_AGENT_ERR_FAILED;
    return head->uiValid == QV_BOX_HEAD_VALID && head->uiCapacity == box->uiBoxSize ? QV_AGENT_OK
                                                                                     : QV_AGENT_ERR_FAILED;
}

int32_t QV_AGENT_GetBlackbox(const char *path, int32_t fileSize) {
    if (path == nullptr || fileSize < 0) return QV_BOX_ERR_OPEN;
    const int fd = ::open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) return QV_BOX_ERR_OPEN;
    if (::posix_fallocate(fd, 0, fileSize) != 0) {
        ::close(fd);
        return QV_BOX_ERR_RESERVE;
    }
    return fd;
}

namespace qv::box {

bool Reset(QvAgentLogBox *box, QvAgentBoxHead &head) {
    QV_AGENT_BoxHeadInit(box, &head);
    return QV_AGENT_WriteBlackboxHead(box, &head) == QV_AGENT_OK;
}

bool WriteRecord(QvAgentLogBox *box, const QvAgentBoxHead &head, uint32_t pos, const uint8_t *recordHead,
                 const uint8_t *record, uint32_t len) {
    const uint64_t total = uint64_t{QV_BOX_REC_HEAD_LEN} + len;
    if (pos < head.uiCapacity && total <= head.uiCapacity - pos) {
        // pwritev only reads the buffers; its iovec type is not const-qualified.
        iovec parts[2] = {{const_cast<uint8_t *>(recordHead), QV_BOX_REC_HEAD_LEN},
                          {const_cast<uint8_t *>(record), len}};
        if (::pwritev(box->iFd, parts, 2, static_cast<off_t>(QV_BOX_HEAD_LEN + pos)) == static_cast<ssize_t>(total)) {
            return true;
        }
    }
    // A record that wraps, or a write that fell short: piece by piece, with the retries of each.
    return QV_AGENT_BoxWriteData(box, &head, pos, QV_BOX_REC_HEAD_LEN, recordHead) == QV_BOX_REC_HEAD_LEN &&
           QV_AGENT_BoxWriteData(box, &head, Advance(head, pos, QV_BOX_REC_HEAD_LEN), len, record) == len;
}

bool LoadHead(QvAgentLogBox *box, QvAgentBoxHead &head) {
    if (QV_AGENT_ReadBlackboxHead(box, &head) != QV_AGENT_OK) return false;
    return QV_AGENT_BoxCheckValid(box, &head) == QV_AGENT_OK || Reset(box, head);
}

}  // namespace qv::box
