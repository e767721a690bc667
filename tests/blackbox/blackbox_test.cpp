// The blackbox file: the ring's geometry byte for byte, the limits of a read into a datagram, the
// corrupt files it empties, the rollback at a restart, its capacity bands, and its place between the
// log list and the send window.
#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "core/mutex_guard.h"
#include "module_fixture.h"
#include "qvagent/qv_agent_blackbox.h"
#include "transport/send_window.h"

namespace {

constexpr char kBoxPath[] = "/opt/zanthe/var/LOG_boxtest_blackbox";
using Bytes = std::vector<uint8_t>;

// Record i of length len: bytes that differ from record to record.
Bytes Record(uint32_t i, uint32_t len) {
    Bytes r(len);
    for (uint32_t j = 0; j < len; ++j) r[j] = static_cast<uint8_t>(i * 31 + j);
    return r;
}

Bytes Concat(const std::vector<Bytes> &parts) {
    Bytes out;
    for (const Bytes &p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

// A module without a scheduler and a blackbox of the capacity a test chooses, installed as the
// process's box on a fresh file.
class BoxTest : public AgentTest {
public:  // the cases' damage functions reach the box through the fixture
    void TearDown() override {
        Uninstall();
        AgentTest::TearDown();
    }
    void Uninstall() {
        if (g_pstQvAgentLogBox != &box_) return;
        g_pstQvAgentLogBox = nullptr;
        ::close(box_.iFd);
        pthread_mutex_destroy(&box_.stMutex);
    }
    // Installs a box of this capacity on a fresh file, in place of any installed before.
    void Install(uint32_t capacity) {
        Uninstall();
        ::unlink(kBoxPath);
        box_.uiBoxSize = capacity;
        pthread_mutex_init(&box_.stMutex, nullptr);
        box_.iFd = QV_AGENT_GetBlackbox(kBoxPath, static_cast<int32_t>(capacity + QV_BOX_HEAD_LEN));
        ASSERT_GE(box_.iFd, 0);
        g_pstQvAgentLogBox = &box_;
    }
    QvAgentBoxHead Head() {
        QvAgentBoxHead h{};
        EXPECT_EQ(QV_AGENT_ReadBlackboxHead(g_pstQvAgentLogBox, &h), QV_AGENT_OK);
        return h;
    }
    void SetHead(const QvAgentBoxHead &h) { ASSERT_EQ(QV_AGENT_WriteBlackboxHead(g_pstQvAgentLogBox, &h), QV_AGENT_OK); }
    // An empty ring whose next record goes to pos.
    void StartAt(uint32_t pos) { SetHead({QV_BOX_HEAD_VALID, box_.uiBoxSize, pos, pos, 0, pos, 0, 0}); }
    uint32_t Write(const Bytes &r) { return QV_AGENT_WriteBlackbox(r.data(), static_cast<uint32_t>(r.size())); }
    // One read into a datagram with this much room: the bytes copied; rc gets the result.
    Bytes ReadOnce(uint32_t room, uint32_t *rc = nullptr) {
        Bytes dst(room);
        uint32_t space = room, got = 0;
        const uint32_t r = QV_AGENT_ReadBlackbox(dst.data(), &space, &got, module_);
        if (rc != nullptr) *rc = r;
        EXPECT_EQ(got, space != 0 ? 1u : 0u);
        dst.resize(space);
        return dst;
    }
    Bytes FileBytes(uint32_t offset, uint32_t len) {
        Bytes b(len);
        EXPECT_EQ(QV_AGENT_BoxRead(box_.iFd, offset, len, b.data()), static_cast<int32_t>(len));
        return b;
    }

    QvAgentLogBox box_{};
};

TEST_F(BoxTest, RingGeometry) {
    constexpr uint32_t kCap = 256;
    constexpr uint32_t kFresh = UINT32_MAX;  // no head written: the file's zeros
    struct Raw {
        uint32_t fileOffset;
        Bytes bytes;
    };
    struct Case {
        const char *name;
        uint32_t start;
        std::vector<uint32_t> lens;
        std::vector<uint32_t> results;
        uint32_t writePos;
        std::vector<Raw> raw;  // bytes expected in the file
    };
    const Case cases[] = {
        {"fresh file", kFresh, {100}, {0}, 108,
         {{0, {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 108, 0, 0, 0, 108, 0, 0, 0}},
          {32, {100, 0, 0, 0, 0xDD, 0xCC, 0xBB, 0xAA, 31, 32}}}},
        {"exact fit", 0, {120, 120}, {0, 0}, 0, {}},
        {"one byte over", 0, {120, 121}, {0, QV_AGENT_BOX_FULL}, 128, {}},
        {"record head split across the end", 252, {100}, {0}, 104,
         {{32 + 252, {100, 0, 0, 0}}, {32, {0xDD, 0xCC, 0xBB, 0xAA, 31, 32}}}},
        {"record body wraps", 200, {100}, {0}, 52, {{32 + 255, {31 + 47}}, {32, {31 + 48}}}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Install(kCap);
        if (c.start != kFresh) StartAt(c.start);
        std::vector<Bytes> stored;
        for (size_t i = 0; i < c.lens.size(); ++i) {
            const Bytes r = Record(static_cast<uint32_t>(i + 1), c.lens[i]);
            EXPECT_EQ(Write(r), c.results[i]);
            if (c.results[i] == QV_AGENT_OK) stored.push_back(r);
        }
        for (const Raw &raw : c.raw) {
            EXPECT_EQ(FileBytes(raw.fileOffset, static_cast<uint32_t>(raw.bytes.size())), raw.bytes) << raw.fileOffset;
        }
        const QvAgentBoxHead h = Head();
        const auto used = static_cast<uint32_t>(Concat(stored).size() + QV_BOX_REC_HEAD_LEN * stored.size());
        EXPECT_EQ(h.uiValid, 1u);
        EXPECT_EQ(h.uiCapacity, kCap);
        EXPECT_EQ(h.uiWritePos, c.writePos);
        EXPECT_EQ(h.uiUsedLen, used);
        EXPECT_EQ(ReadOnce(QV_WIRE_SEND_BUFFER_LEN), Concat(stored));
        const QvAgentBoxHead after = Head();
        EXPECT_EQ(after.uiReadPos, c.writePos);
        EXPECT_EQ(after.uiUsedLen, 0u);
        EXPECT_EQ(after.uiReadedLen, used);
        EXPECT_EQ(after.uiCommitPos, c.start == kFresh ? 0u : c.start) << "only an acknowledgement commits";
    }
}

TEST_F(BoxTest, ReadStopsAtThePassCapTheBodyLimitAndTheRoom) {
    struct Case {
        const char *name;
        uint32_t count, len, packedThisPass, room;
        uint32_t expectRead;
    };
    constexpr uint32_t kRoom = QV_WIRE_SEND_BUFFER_LEN - QV_WIRE_STREAM_HEAD_LEN;
    const Case cases[] = {
        {"200 records a pass", 300, 10, 0, kRoom, 200},
        {"the pass's last record", 300, 10, 199, kRoom, 1},
        {"pass cap reached", 300, 10, 200, kRoom, 0},
        {"body reaches 8096 exactly", 3, 4048, 0, kRoom, 3},
        {"body passes 8096", 3, 4049, 0, kRoom, 2},
        {"next record needs more room", 2, 5000, 0, 9999, 1},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Install(QV_BOX_CAPACITY_MEDIUM);
        std::vector<Bytes> records;
        for (uint32_t i = 0; i < c.count; ++i) {
            records.push_back(Record(i, c.len));
            ASSERT_EQ(Write(records.back()), QV_AGENT_OK);
        }
        module_->uiLogSendCnt = c.packedThisPass;
        uint32_t rc = 1;
        const Bytes got = ReadOnce(c.room, &rc);
        EXPECT_EQ(rc, QV_AGENT_OK);
        EXPECT_EQ(got, Concat({records.begin(), records.begin() + c.expectRead}));
        EXPECT_EQ(module_->uiLogSendCnt, c.packedThisPass + c.expectRead);
        EXPECT_EQ(Head().uiUsedLen, (c.count - c.expectRead) * (c.len + QV_BOX_REC_HEAD_LEN));
    }
}

TEST_F(BoxTest, CorruptContentEmptiesTheBoxAtTheNextRead) {
    struct Case {
        const char *name;
        void (*damage)(BoxTest &t);
    };
    const Case cases[] = {
        {"damaged magic of the second record",
         [](BoxTest &t) { ASSERT_EQ(QV_AGENT_BoxWrite(t.box_.iFd, 32 + 28 + 4, 1, Bytes{0}.data()), 1); }},
        {"length beyond the unread bytes",
         [](BoxTest &t) { ASSERT_EQ(QV_AGENT_BoxWrite(t.box_.iFd, 32, 1, Bytes{200}.data()), 1); }},
        {"unread count above the capacity",
         [](BoxTest &t) {
             QvAgentBoxHead h = t.Head();
             h.uiUsedLen = h.uiCapacity + 1;
             t.SetHead(h);
         }},
        {"capacity of another start",
         [](BoxTest &t) {
             QvAgentBoxHead h = t.Head();
             h.uiCapacity *= 2;
             t.SetHead(h);
         }},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Install(256);
        ASSERT_EQ(Write(Record(1, 20)), QV_AGENT_OK);
        ASSERT_EQ(Write(Record(2, 20)), QV_AGENT_OK);
        c.damage(*this);
        uint32_t rc = 0;
        EXPECT_TRUE(ReadOnce(QV_WIRE_SEND_BUFFER_LEN, &rc).empty());
        EXPECT_EQ(rc, QV_AGENT_ERR_FAILED);
        const QvAgentBoxHead h = Head();
        EXPECT_EQ(h.uiValid, 1u);
        EXPECT_EQ(h.uiCapacity, 256u);
        EXPECT_EQ(h.uiUsedLen + h.uiReadPos + h.uiWritePos + h.uiCommitPos + h.uiReadedLen, 0u);
        EXPECT_EQ(QV_AGENT_BlackboxIsEmpty(), 1u);
    }
}

// A restart is the box opened again by module creation on the same file.
class BoxRestartTest : public BoxTest {
protected:
    void SetUp() override {
        BoxTest::SetUp();
        ::unlink(path_.c_str());
        Restart();
    }
    void TearDown() override {
        qvtest::CloseBlackbox(module_);
        BoxTest::TearDown();
    }
    void Restart() {
        qvtest::CloseBlackbox(module_);
        qvtest::ServiceTypeEnv env("restart");
        ASSERT_EQ(QV_AGENT_CreateModuleLogFileBufferInit(module_), QV_AGENT_OK);
        ASSERT_EQ(module_->bBlackboxEnable, 1u);
        module_->bBlackboxEnable = 0;  // the test drives the box directly
        module_->uiLogSendCnt = 0;
    }
    const std::string path_ = "/opt/zanthe/var/LOG_restart_blackbox";
};

TEST_F(BoxRestartTest, UnacknowledgedReadsComeBackAndCommittedOnesDoNot) {
    const Bytes r1 = Record(1, 40), r2 = Record(2, 40), r3 = Record(3, 40), r4 = Record(4, 40);
    for (const Bytes *r : {&r1, &r2, &r3}) ASSERT_EQ(Write(*r), QV_AGENT_OK);
    ASSERT_EQ(ReadOnce(90), Concat({r1, r2}));  // room for two
    Restart();
    EXPECT_EQ(ReadOnce(90), Concat({r1, r2})) << "read but not acknowledged: read again";
    EXPECT_EQ(QV_AGENT_ClearReadedBoxData(), QV_AGENT_OK);
    EXPECT_EQ(Head().uiCommitPos, 96u);
    ASSERT_EQ(Write(r4), QV_AGENT_OK);
    Restart();
    EXPECT_EQ(ReadOnce(QV_WIRE_SEND_BUFFER_LEN), Concat({r3, r4})) << "acknowledged records stay gone";
    EXPECT_EQ(QV_AGENT_ClearReadedBoxData(), QV_AGENT_OK);
    Restart();
    EXPECT_EQ(QV_AGENT_BlackboxIsEmpty(), 1u);
}

TEST_F(BoxRestartTest, InconsistentHeadIsDiscardedAtStart) {
    ASSERT_EQ(Write(Record(1, 40)), QV_AGENT_OK);
    ASSERT_EQ(ReadOnce(QV_WIRE_SEND_BUFFER_LEN).size(), 40u);
    QvAgentBoxHead h = Head();
    h.uiUsedLen = h.uiCapacity - h.uiReadedLen + 1;  // read and unread together overflow the ring
    SetHead(h);
    Restart();
    EXPECT_EQ(Head().uiUsedLen, 0u);
    EXPECT_EQ(Head().uiReadedLen, 0u);
    h = Head();
    h.uiCapacity = QV_BOX_CAPACITY_SMALL;  // the file of a start on another file system
    h.uiUsedLen = 48;
    SetHead(h);
    Restart();
    EXPECT_EQ(Head().uiCapacity, QV_BOX_CAPACITY_LARGE);
    EXPECT_EQ(Head().uiUsedLen, 0u);
}

TEST_F(BoxTest, CapacityFollowsTheServiceTypeAndTheFileSystemSize) {
    struct Case {
        const char *serviceType;
        const char *fsSize;  // tmpfs mounted on the box's directory
        uint32_t expect;
    };
    const Case cases[] = {
        {"svc", "5242880", QV_BOX_CAPACITY_SMALL},  {"svc", "5246976", QV_BOX_CAPACITY_MEDIUM},
        {"svc", "10485760", QV_BOX_CAPACITY_MEDIUM}, {"svc", "10489856", QV_BOX_CAPACITY_LARGE},
        {"tzk_frm", "5242880", QV_BOX_CAPACITY_FRAME},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.fsSize);
        qvtest::ServiceTypeEnv env(c.serviceType);
        const std::string options = std::string("size=") + c.fsSize;
        ASSERT_EQ(::mount("boxfs", "/opt/zanthe/var", "tmpfs", 0, options.c_str()), 0);
        EXPECT_EQ(QV_AGENT_GetBlackBoxSize(module_), c.expect);
        ASSERT_EQ(::umount("/opt/zanthe/var"), 0);
    }
    qvtest::ServiceTypeEnv env("svc");
    ASSERT_EQ(::mount("boxfs", "/opt/zanthe", "tmpfs", 0, "size=64m"), 0);  // no var directory to ask
    EXPECT_EQ(QV_AGENT_GetBlackBoxSize(module_), QV_BOX_CAPACITY_SMALL);
    ASSERT_EQ(::umount("/opt/zanthe"), 0);
}

// A file cut short behind the agent's back: every operation fails with its code and the head is left
// as it was, except by an allocation that fails first.
TEST_F(BoxTest, TruncatedFileFailsEachOperation) {
    struct Case {
        const char *name;
        off_t keep;           // bytes of the file left
        uint32_t readResult;  // of QV_AGENT_ReadBlackbox
    };
    const Case cases[] = {
        {"no head", 0, QV_AGENT_ERR_FAILED},
        {"no record head", 32 + 4, QV_AGENT_ERR_FAILED},
        {"record cut short", 32 + 8 + 10, QV_AGENT_BOX_SHORT_READ},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Install(256);
        ASSERT_EQ(Write(Record(1, 20)), QV_AGENT_OK);
        ASSERT_EQ(::ftruncate(box_.iFd, c.keep), 0);
        uint32_t rc = 0;
        EXPECT_TRUE(ReadOnce(QV_WIRE_SEND_BUFFER_LEN, &rc).empty());
        EXPECT_EQ(rc, c.readResult);
        EXPECT_EQ(module_->uiLogSendCnt, 0u);
        module_->uiLogSendCnt = 0;
        if (c.keep == 0) {
            EXPECT_EQ(Write(Record(2, 20)), QV_AGENT_ERR_FAILED);
            EXPECT_EQ(QV_AGENT_BlackboxIsEmpty(), 1u);
            EXPECT_EQ(QV_AGENT_ClearReadedBoxData(), QV_AGENT_ERR_FAILED);
        } else {
            EXPECT_EQ(Head().uiUsedLen, 28u) << "the head is not updated";
        }
    }
    Uninstall();
    qvtest::ServiceTypeEnv env("nomem");
    ASSERT_EQ(QV_AGENT_GetFileBufName(module_->szBlackboxFile, QV_AGENT_BLACKBOX_PATH_LEN), QV_AGENT_OK);
    QVPLAT_TestFailAllocation(1);
    EXPECT_EQ(QV_AGENT_InitLogBlackbox(module_), QV_AGENT_ERR_FAILED);
    QVPLAT_TestFailAllocation(0);
    EXPECT_EQ(g_pstQvAgentLogBox, nullptr);
    EXPECT_EQ(qvtest::AgentBlocks(), baseBlocks_);
}

TEST_F(BoxTest, FileAccessResultCodes) {
    Install(256);
    uint8_t buf[8] = {};
    struct Case {
        const char *name;
        int32_t fd;
        uint32_t offset, len;
        uint8_t *buf;
        int32_t expect;
    };
    const Case cases[] = {
        {"whole", box_.iFd, 280, 8, buf, 8},
        {"nothing at the end", box_.iFd, 288, 0, buf, 0},
        {"null buffer", box_.iFd, 0, 8, nullptr, QV_BOX_ERR_RANGE},
        {"offset and length overflow", box_.iFd, UINT32_MAX - 3, 8, buf, QV_BOX_ERR_RANGE},
        {"beyond the file", box_.iFd, 281, 8, buf, QV_BOX_ERR_BEYOND},
        {"no file", -1, 0, 8, buf, QV_BOX_ERR_FSTAT},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(QV_AGENT_BoxWrite(c.fd, c.offset, c.len, c.buf), c.expect);
        EXPECT_EQ(QV_AGENT_BoxRead(c.fd, c.offset, c.len, c.buf), c.expect);
    }
    EXPECT_EQ(QV_AGENT_GetBlackbox("/opt/zanthe/none/LOG_x_blackbox", 64), QV_BOX_ERR_OPEN);
    EXPECT_EQ(QV_AGENT_GetBlackbox("/opt/zanthe/var/LOG_huge_blackbox", INT32_MAX), QV_BOX_ERR_RESERVE);
    EXPECT_EQ(QV_AGENT_WriteBlackbox(nullptr, 0), QV_AGENT_ERR_FAILED);
    g_pstQvAgentLogBox = nullptr;
    EXPECT_EQ(Write(Record(1, 8)), QV_AGENT_ERR_FAILED) << "no box";
    EXPECT_EQ(QV_AGENT_BlackboxIsEmpty(), 1u);
    EXPECT_EQ(QV_AGENT_ClearReadedBoxData(), QV_AGENT_ERR_FAILED);
    g_pstQvAgentLogBox = &box_;
    for (const char *name : {"tzk", "tzkd"}) EXPECT_EQ(QV_AGENT_IsNeedUseLogBlackBox(name), 1u) << name;
    for (const char *name : {"tzk_frm", "", static_cast<const char *>(nullptr)}) {
        EXPECT_EQ(QV_AGENT_IsNeedUseLogBlackBox(name), 0u);
    }
}

// The box between the log list and the send window: records go to the file while it has room and to
// list 0 when it is full; a datagram is packed from the file; its acknowledgement commits the file and
// moves list 0 into it.
TEST_F(BoxTest, QueuesPacksAndCommitsLogRecords) {
    Install(256);
    module_->bBlackboxEnable = 1;
    module_->iSockFd = -1;  // datagrams go nowhere
    const Bytes r1 = Record(1, 100), r2 = Record(2, 100), r3 = Record(3, 100);
    for (const Bytes *r : {&r1, &r2, &r3}) {
        ASSERT_EQ(QV_AGENT_AddSendBuf(r->data(), 100, QV_AGENT_MSG_LOG, module_), QV_AGENT_OK);
    }
    QvAgentSendList &list = module_->astSendList[QV_AGENT_MSG_LOG];
    EXPECT_EQ(list.uiCount, 1u) << "the third did not fit";
    EXPECT_EQ(Head().uiUsedLen, 216u);
    Bytes buf(QV_WIRE_SEND_BUFFER_LEN);
    const auto pass = [&] { return QV_AGENT_GetSendMsg(QV_AGENT_MSG_LOG, buf.data(), QV_WIRE_SEND_BUFFER_LEN, module_); };
    ASSERT_EQ(pass(), static_cast<int32_t>(QV_WIRE_STREAM_HEAD_LEN)) << "the stream start carries no records";
    {
        qv::MutexGuard guard(module_->stListMutex);
        qv::window::ReleaseAcknowledged(module_, QV_AGENT_MSG_LOG);
    }
    EXPECT_EQ(list.uiCount, 1u) << "still no room in the box";
    ASSERT_EQ(pass(), static_cast<int32_t>(QV_WIRE_STREAM_HEAD_LEN + 200));
    EXPECT_EQ(Bytes(buf.begin() + QV_WIRE_STREAM_HEAD_LEN, buf.begin() + QV_WIRE_STREAM_HEAD_LEN + 200), Concat({r1, r2}));
    EXPECT_EQ(list.uiCount, 1u) << "the list waits while the box is read";
    EXPECT_EQ(Head().uiReadedLen, 216u);
    {
        qv::MutexGuard guard(module_->stListMutex);
        qv::window::ReleaseAcknowledged(module_, QV_AGENT_MSG_LOG);
    }
    EXPECT_EQ(list.uiCount, 0u);
    const QvAgentBoxHead h = Head();
    EXPECT_EQ(h.uiReadedLen, 0u);
    EXPECT_EQ(h.uiCommitPos, 216u);
    EXPECT_EQ(h.uiUsedLen, 108u) << "list 0 moved into the box";
    ASSERT_EQ(pass(), static_cast<int32_t>(QV_WIRE_STREAM_HEAD_LEN + 100));
    EXPECT_EQ(Bytes(buf.begin() + QV_WIRE_STREAM_HEAD_LEN, buf.begin() + QV_WIRE_STREAM_HEAD_LEN + 100), r3);
}

}  // namespace
