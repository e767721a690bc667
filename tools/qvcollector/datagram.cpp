// Reading datagram heads and building acknowledgements.
#include "datagram.h"

#include "qvagent/qv_agent_wire.h"

namespace qvcollector {

using qvdecode::Be16;
using qvdecode::Be32;
using qvdecode::Le16;
using qvdecode::U8;

std::string_view KindName(Kind k) {
    switch (k) {
    case Kind::Log: return "log";
    case Kind::Alarm: return "alarm";
    case Kind::Debug: return "debug";
    case Kind::HighPrecision: return "hplog";
    case Kind::Kpi: return "kpi";
    }
    return "log";
}

Kind KindOfPort(Port p) {
    switch (p) {
    case Port::Log: return Kind::Log;
    case Port::Alarm: return Kind::Alarm;
    case Port::HighPrecision: return Kind::HighPrecision;
    case Port::Kpi: return Kind::Kpi;
    case Port::Debug: return Kind::Debug;
    }
    return Kind::Log;
}

Head ReadHead(Port port, Bytes d) {
    Head h;
    h.kind = KindOfPort(port);
    const auto bad = [&h](std::string why) {
        h.shape = Shape::Bad;
        h.error = std::move(why);
        return h;
    };
    if (d.size() < QV_WIRE_SHORT_HEAD_LEN) {
        return bad(std::to_string(d.size()) + " bytes, shorter than a datagram head");
    }
    h.totalLen = Be16(d, QV_WIRE_HEAD_TOTAL_LEN_OFF);
    h.flags = U8(d, QV_WIRE_HEAD_FLAGS_OFF);
    h.msgType = U8(d, QV_WIRE_HEAD_MSG_TYPE_OFF);
    if (h.msgType == QV_WIRE_MSG_KPI) {
        if (port != Port::Kpi) return bad("KPI packet on the " + std::string(KindName(h.kind)) + " port");
        if (h.totalLen != d.size()) {
            return bad("length field " + std::to_string(h.totalLen) + " for " + std::to_string(d.size()) + " bytes");
        }
        h.headLen = QV_WIRE_KPI_COMMON_HEAD_LEN;
        h.shape = Shape::Kpi;
        return h;
    }
    h.seq = Be32(d, QV_WIRE_HEAD_SEQ_NO_OFF);
    h.hasSeq = true;
    if ((h.flags & QV_WIRE_FLAG_ACK) != 0) return bad("an acknowledgement, not a datagram for the collector");
    if (h.msgType == QV_WIRE_MSG_FLUSH) {
        if (h.totalLen != d.size()) {
            return bad("length field " + std::to_string(h.totalLen) + " for " + std::to_string(d.size()) + " bytes");
        }
        h.headLen = QV_WIRE_SHORT_HEAD_LEN;
        h.shape = Shape::Flush;
        return h;
    }
    if (h.msgType != QV_WIRE_MSG_NUMBERED) return bad("unknown message type " + std::to_string(h.msgType));
    if (port == Port::Kpi) return bad("numbered datagram on the KPI port");
    h.headLen = port == Port::Alarm ? QV_WIRE_SHORT_HEAD_LEN : QV_WIRE_STREAM_HEAD_LEN;
    if (d.size() < h.headLen) {
        return bad(std::to_string(d.size()) + " bytes, shorter than the " + std::to_string(h.headLen) +
                   "-byte head of the " + std::string(KindName(h.kind)) + " kind");
    }
    if (port != Port::Alarm) h.streamType = Le16(d, QV_WIRE_HEAD_STREAM_TYPE_OFF);
    if (port == Port::Log) {
        // In socket mode debug datagrams share the log port; the stream type tells them apart.
        if (h.streamType == QV_WIRE_STREAM_TYPE_LOG) {
            h.kind = Kind::Log;
        } else if (h.streamType == QV_WIRE_STREAM_TYPE_OTHER) {
            h.kind = Kind::Debug;
        } else {
            return bad("stream type " + std::to_string(h.streamType) + " on the log port");
        }
    }
    h.shape = Shape::Numbered;
    return h;
}

std::vector<uint8_t> BuildAck(Port port, const Head &head) {
    const size_t len = port == Port::Log ? QV_WIRE_ACK_LEN_LOG_PORT : QV_WIRE_ACK_LEN;
    std::vector<uint8_t> ack(len, 0);
    ack[QV_WIRE_HEAD_TOTAL_LEN_OFF] = static_cast<uint8_t>(len >> 8);
    ack[QV_WIRE_HEAD_TOTAL_LEN_OFF + 1] = static_cast<uint8_t>(len);
    ack[QV_WIRE_HEAD_FLAGS_OFF] = QV_WIRE_FLAG_ACK;
    ack[QV_WIRE_HEAD_MSG_TYPE_OFF] = QV_WIRE_MSG_NUMBERED;
    for (size_t i = 0; i < 4; ++i) {
        ack[QV_WIRE_HEAD_SEQ_NO_OFF + i] = static_cast<uint8_t>(head.seq >> (24 - 8 * i));
    }
    if (port == Port::Log) {
        ack[QV_WIRE_ACK_STREAM_TYPE_OFF] = static_cast<uint8_t>(head.streamType);
        ack[QV_WIRE_ACK_STREAM_TYPE_OFF + 1] = static_cast<uint8_t>(head.streamType >> 8);
    }
    return ack;
}

}  // namespace qvcollector
