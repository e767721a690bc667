// The collector's side of the stream without a server: subjects, message ids, what a numbered
// datagram hands to the stream and when its acknowledgement is released, and the metrics text.
#include <gtest/gtest.h>

#include <string>

#include "collector.h"
#include "metrics_text.h"
#include "stream_names.h"
#include "wire_builder.h"

namespace {

using namespace wiretest;
using namespace qvcollector;
using Bytes = wiretest::Bytes;  // the builders' bytes, not the decoder's view

const Sender kFrom{0x7F000001, 40000};

qvdecode::Bytes View(const Bytes &b) { return qvdecode::Bytes(b.data(), b.size()); }

Bytes LogDatagram(uint32_t seq, uint32_t counter) {
    const Bytes record = ByIdRecord(4, 0x5EC, {Entry(QV_FMT_PARA_U32, Le32(counter))});
    return Datagram(kData, seq, QV_WIRE_STREAM_TYPE_LOG, Cat({record, record}));
}

TEST(StreamNames, SubjectsAndServices) {
    EXPECT_EQ(SubjectOf(Kind::Log, "boxlog"), "qv.log.boxlog");
    EXPECT_EQ(SubjectOf(Kind::Alarm, "a.b c*>\x7f"), "qv.alarm.a_b_c___");
    EXPECT_EQ(SubjectOf(Kind::Kpi, ""), "qv.kpi._");
    EXPECT_EQ(ServiceOfRecord(View(ByIdRecord(4, 1, {}))), "svc");
    EXPECT_EQ(ServiceOfRecord(View(TypicalAlarm(7, "text"))), "svc");
    Bytes cut = ByIdRecord(4, 1, {});
    cut.resize(QV_LOG_HEAD_LEN + 6);  // the name's entry runs past the end
    EXPECT_EQ(ServiceOfRecord(View(cut)), "");
}

// Equal bytes give equal ids; any other byte, number, kind or sender another.
TEST(StreamNames, MessageIdFollowsTheDatagramsBytes) {
    const Bytes d = LogDatagram(5, 1);
    const std::string id = MessageId(Kind::Log, kFrom.ip, 5, DatagramHash(View(d)));
    EXPECT_EQ(id.rfind("log-7f000001-5-", 0), 0u) << id;
    EXPECT_EQ(id, MessageId(Kind::Log, kFrom.ip, 5, DatagramHash(View(LogDatagram(5, 1)))));
    EXPECT_NE(DatagramHash(View(d)), DatagramHash(View(LogDatagram(5, 2))));
    Bytes longer = d;
    longer.push_back(0);
    EXPECT_NE(DatagramHash(View(d)), DatagramHash(View(longer)));
    EXPECT_NE(id, MessageId(Kind::Debug, kFrom.ip, 5, DatagramHash(View(d))));
    EXPECT_NE(id, MessageId(Kind::Log, kFrom.ip + 1, 5, DatagramHash(View(d))));
}

// With a stream: the acknowledgement is held until Release, a resend hands the same message again
// without printing its records twice, and gaps count what was never stored.
TEST(StreamCollector, AcknowledgementWaitsForTheStream) {
    Options o;
    o.nats = "nats://127.0.0.1:4222";
    Collector c(o);
    const Outcome first = c.Handle(Port::Log, kFrom, View(LogDatagram(2, 1)));
    ASSERT_TRUE(first.held && first.store);
    EXPECT_EQ(first.ack.size(), QV_WIRE_ACK_LEN_LOG_PORT);
    EXPECT_EQ(first.store->subject, "qv.log.svc");
    EXPECT_EQ(first.store->records, 2u);
    EXPECT_EQ(first.store->payload, first.lines[0] + "\n" + first.lines[1] + "\n");
    const Outcome resent = c.Handle(Port::Log, kFrom, View(LogDatagram(2, 1)));
    ASSERT_TRUE(resent.store);
    EXPECT_EQ(resent.store->id, first.store->id);
    EXPECT_EQ(resent.store->payload, first.store->payload);
    ASSERT_EQ(resent.lines.size(), 1u);
    EXPECT_NE(resent.lines[0].find("\"event\":\"duplicate\""), std::string::npos);
    EXPECT_EQ(c.Stats()[0].acks, 0u);

    EXPECT_TRUE(c.Release(*first.held));
    const Outcome later = c.Handle(Port::Log, kFrom, View(LogDatagram(5, 3)));
    EXPECT_TRUE(c.Release(*later.held));
    const KindStats &s = c.Stats()[0];
    EXPECT_EQ(s.acks, 2u);
    EXPECT_EQ(s.duplicates, 1u);
    EXPECT_EQ(s.missing, 2u);  // 3 and 4 never stored
    EXPECT_EQ(s.records, 4u);

    const Outcome start = c.Handle(Port::Alarm, kFrom, View(Datagram(kStart, 1, std::nullopt, {})));
    EXPECT_TRUE(start.held && !start.store) << "nothing to store: released at once";
}

TEST(StreamCollector, MetricsInBothFormats) {
    std::array<KindStats, kKindCount> stats{};
    stats[0].records = 7;
    stats[4].pending = 2;
    const std::string open = MetricsText(stats, true, MetricsFormat::OpenMetrics);
    const std::string classic = MetricsText(stats, true, MetricsFormat::Classic);
    EXPECT_NE(open.find("# TYPE qvcollector_records counter\n"), std::string::npos);
    EXPECT_NE(classic.find("# TYPE qvcollector_records_total counter\n"), std::string::npos);
    for (const std::string *t : {&open, &classic}) {
        EXPECT_NE(t->find("\nqvcollector_records_total{kind=\"log\"} 7\n"), std::string::npos);
        EXPECT_NE(t->find("\nqvcollector_publishes_pending{kind=\"kpi\"} 2\n"), std::string::npos);
    }
    EXPECT_EQ(open.substr(open.size() - 6), "# EOF\n");
    EXPECT_EQ(classic.find("# EOF"), std::string::npos);
    EXPECT_EQ(MetricsText(stats, false, MetricsFormat::Classic).find("publishes"), std::string::npos);
    EXPECT_EQ(FormatForAccept("application/openmetrics-text;version=1.0.0,text/plain;q=0.5"), MetricsFormat::OpenMetrics);
    EXPECT_EQ(FormatForAccept("*/*"), MetricsFormat::Classic);
}

}  // namespace
