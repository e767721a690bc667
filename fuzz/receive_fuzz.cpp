// Fuzz target of the agent's receive path: whatever arrives on the socket-mode socket
// (QV_AGENT_ProcRecvMsg) and on the mesh sockets (the reply seam under the socket read), mixed with
// records queued and send passes, so that replies meet kept datagrams, empty kinds and full lists.
// The input is a list of steps; each step's first byte chooses what it does:
//   0 queue: kind, record length       1 send pass: mode, kind
//   2 socket-mode datagram: port choice, flags (bit 0: carry the kept number), length, bytes
//   3 mesh reply: kind                 4 clear the pass counters
// No input may crash, touch a kind the datagram is not for, release a kept datagram on a wrong number
// (socket mode), keep one past a mesh reply, grow a list past its limit or leave a block allocated.
#include <arpa/inet.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "core/bytes.h"
#include "core/memory_internal.h"
#include "event/send_list.h"
#include "qvagent/qvagent.h"
#include "qvagent/qv_agent_wire.h"
#include "qvplatform_testctl.h"
#include "transport/mesh_mode.h"

namespace {

constexpr uint32_t kListLimit = 4;
constexpr uint32_t kAckedKinds = QV_AGENT_MSG_KPI;  // kinds 0 to 3 are acknowledged
constexpr size_t kMaxDatagram = 300;
constexpr uint16_t kPorts[] = {QV_WIRE_PORT_LOG, QV_WIRE_PORT_ALARM, QV_WIRE_PORT_HIGH_PRECISION,
                               QV_WIRE_PORT_KPI, QV_WIRE_PORT_DEBUG};
constexpr uint32_t kMeshPorts[kAckedKinds] = {QV_WIRE_PORT_LOG, QV_WIRE_PORT_ALARM, QV_WIRE_PORT_DEBUG,
                                              QV_WIRE_PORT_HIGH_PRECISION};
constexpr uint8_t kCarryKeptNumber = 0x01;

enum Step : uint8_t { kQueue, kSendPass, kSocketDatagram, kMeshReply, kClearCounters, kStepCount };

void Require(bool ok) {
    if (!ok) std::abort();
}

// The kind's state that a datagram for another kind must leave alone.
struct KindState {
    uint32_t seqNo;
    const uint8_t *kept;
    uint32_t count;
    bool operator==(const KindState &) const = default;
};

std::array<KindState, kAckedKinds> Snapshot(const QvAgentModule *m) {
    std::array<KindState, kAckedKinds> s{};
    for (uint32_t k = 0; k < kAckedKinds; ++k) {
        s[k] = {m->astSendList[k].uiSeqNo, m->astSendList[k].pucResendMsg, m->astSendList[k].uiCount};
    }
    return s;
}

// Back to a fresh stream on every kind with nothing queued or kept.
void Reset(QvAgentModule *m) {
    for (QvAgentSendList &list : m->astSendList) {
        QV_AGENT_FreeResendMsg(&list, m);
        while (QvAgentListItem *item = qv::sendlist::First(list)) {
            qv::sendlist::Unlink(list, item);
            qv::sendlist::Release(item, m);
        }
        list.uiSeqNo = 0;
        list.bSynced = 0;
        list.bAckRecv = 0;
    }
    QV_AGENT_ClearSendCountInfo(m);
}

// The module of the whole run, made once: no scheduler thread (steps drive the send passes), no
// blackbox, small lists, and no socket: what is sent goes nowhere, which keeps the runs fast and
// leaves the send window's state as a real send would.
QvAgentModule *Module() {
    static QvAgentModule *module = [] {
        unsetenv("PX_SERVICE_TYPE");
        QvAgentServiceDesc desc{};
        std::strcpy(desc.szServiceName, "rcvfuzz");
        desc.uiListLimit = kListLimit;
        desc.uiSelfIp = htonl(INADDR_LOOPBACK);
        QVPLAT_TestKevFailThreadCreate(1);
        QvAgentModule *m = QV_Agent_Init(&desc);
        QVPLAT_TestKevFailThreadCreate(0);
        Require(m != nullptr);
        m->uiMainBoardIp = htonl(INADDR_LOOPBACK);
        m->iSockFd = -1;
        Reset(m);  // the allocator report queued by the initialisation
        return m;
    }();
    return module;
}

// The kind an acknowledgement from port is for, or kAckedKinds when none: by the port, and on the log
// port by the stream type.
uint32_t KindOf(uint16_t port, const uint8_t *d, size_t len) {
    switch (port) {
        case QV_WIRE_PORT_ALARM: return QV_AGENT_MSG_ALARM;
        case QV_WIRE_PORT_HIGH_PRECISION: return QV_AGENT_MSG_HIGH_PRECISION;
        case QV_WIRE_PORT_LOG:
            if (len < QV_WIRE_ACK_MIN_LEN_LOG_PORT) return kAckedKinds;
            switch (qv::bytes::LoadLe16(d + QV_WIRE_ACK_STREAM_TYPE_OFF)) {
                case QV_WIRE_STREAM_TYPE_LOG: return QV_AGENT_MSG_LOG;
                case QV_WIRE_STREAM_TYPE_OTHER: return QV_AGENT_MSG_DEBUG;
                default: return kAckedKinds;
            }
        default: return kAckedKinds;
    }
}

// Reads the input step by step.
class Steps {
public:
    Steps(const uint8_t *data, size_t size) : data_(data), size_(size) {}
    bool More() const { return at_ < size_; }
    uint8_t Byte() { return at_ < size_ ? data_[at_++] : 0; }
    // Up to n bytes into out; how many there were.
    size_t Take(uint8_t *out, size_t n) {
        const size_t got = n < size_ - at_ ? n : size_ - at_;
        if (got != 0) std::memcpy(out, data_ + at_, got);
        at_ += got;
        return got;
    }

private:
    const uint8_t *data_;
    size_t size_;
    size_t at_ = 0;
};

void Queue(QvAgentModule *m, Steps &in) {
    static const std::array<uint8_t, QV_LOG_HEAD_LEN> record = [] {
        std::array<uint8_t, QV_LOG_HEAD_LEN> r{};
        r.fill(0x5A);
        return r;
    }();
    const uint32_t k = in.Byte() % kAckedKinds;
    const uint32_t len = 1u + in.Byte() % static_cast<uint32_t>(record.size());
    const uint32_t before = m->astSendList[k].uiCount;
    const uint32_t rc = QV_AGENT_AddSendBuf(record.data(), len, k, m);
    Require(rc == QV_AGENT_OK || rc == QV_AGENT_ERR_LIST_FULL);
    Require(m->astSendList[k].uiCount == before + (rc == QV_AGENT_OK ? 1u : 0u));
}

void SendPass(QvAgentModule *m, Steps &in) {
    const bool mesh = (in.Byte() & 1u) != 0;
    const uint32_t k = in.Byte() % kAckedKinds;
    if (mesh) {
        Require(QV_AGENT_SendMeshMsg(k, static_cast<int32_t>(kMeshPorts[k]), m) == QV_AGENT_OK);
    } else {
        Require(QV_AGENT_SendMsg(k, m) == QV_AGENT_OK);
    }
}

// A datagram from one of the collector's ports (or any other), possibly carrying the number of the
// kept datagram of the kind it claims, so that true acknowledgements are among the inputs too.
void SocketDatagram(QvAgentModule *m, Steps &in) {
    const uint8_t choice = in.Byte();
    const uint8_t flags = in.Byte();
    const size_t len = in.Byte() % (kMaxDatagram + 1);
    uint8_t d[kMaxDatagram] = {};
    const size_t got = in.Take(d, len);
    const uint16_t port = choice < 2 * std::size(kPorts) ? kPorts[choice % std::size(kPorts)]
                                                         : static_cast<uint16_t>(choice * 257u);
    const uint32_t k = KindOf(port, d, got);
    if ((flags & kCarryKeptNumber) != 0 && k < kAckedKinds && got >= QV_WIRE_HEAD_SEQ_NO_OFF + 4) {
        qv::bytes::StoreBe32(d + QV_WIRE_HEAD_SEQ_NO_OFF, m->astSendList[k].uiSeqNo);
    }
    sockaddr_in from{};
    from.sin_family = AF_INET;
    from.sin_port = htons(port);
    from.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const auto before = Snapshot(m);
    const uint32_t rc = QV_AGENT_ProcRecvMsg(d, static_cast<uint32_t>(got), &from, m);
    const auto after = Snapshot(m);
    for (uint32_t other = 0; other < kAckedKinds; ++other) {
        if (other != k || rc != QV_AGENT_OK) Require(after[other] == before[other]);
    }
    if (rc != QV_AGENT_OK || before[k].kept == nullptr) return;
    const bool matches = got >= QV_WIRE_ACK_MIN_LEN && qv::bytes::LoadBe32(d + QV_WIRE_HEAD_SEQ_NO_OFF) == before[k].seqNo;
    // A wrong number leaves the kept datagram's number in place: it may be resent, never replaced.
    if (!matches) Require(after[k].seqNo == before[k].seqNo);
}

// Any datagram on a kind's mesh socket, whatever its bytes, releases the kept one of that kind.
void MeshReply(QvAgentModule *m, Steps &in) {
    const uint32_t k = in.Byte() % kAckedKinds;
    const auto before = Snapshot(m);
    qv::mesh::TakeReply(m, k, kMeshPorts[k]);
    const auto after = Snapshot(m);
    for (uint32_t other = 0; other < kAckedKinds; ++other) {
        if (other != k) Require(after[other] == before[other]);
    }
    if (before[k].kept != nullptr && after[k].kept != nullptr) Require(after[k].seqNo != before[k].seqNo);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    QvAgentModule *m = Module();
    static const uint64_t baseline = qv::BlocksOutstanding();
    Steps in(data, size);
    while (in.More()) {
        switch (in.Byte() % kStepCount) {
            case kQueue: Queue(m, in); break;
            case kSendPass: SendPass(m, in); break;
            case kSocketDatagram: SocketDatagram(m, in); break;
            case kMeshReply: MeshReply(m, in); break;
            default: QV_AGENT_ClearSendCountInfo(m); break;
        }
        for (uint32_t k = 0; k < kAckedKinds; ++k) Require(m->astSendList[k].uiCount <= kListLimit + 1);
    }
    Reset(m);
    Require(qv::BlocksOutstanding() == baseline);
    return 0;
}
