// Byte-exact records and datagrams for the tool tests, laid out field after field in wire order
// (records little-endian as on the device, datagram heads big-endian).
#ifndef QV_TEST_TOOLS_WIRE_BUILDER_H
#define QV_TEST_TOOLS_WIRE_BUILDER_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "qvagent/qv_agent_wire.h"

namespace wiretest {

using Bytes = std::vector<uint8_t>;

// Flags of the datagrams the agent builds, and of the first one of a kind.
constexpr uint8_t kData = QV_WIRE_FLAG_BYTE_ORDER;
constexpr uint8_t kStart = QV_WIRE_FLAG_BYTE_ORDER | QV_WIRE_FLAG_STREAM_START;

Bytes Le16(uint16_t v);
Bytes Le32(uint32_t v);
Bytes Le64(uint64_t v);
Bytes Cat(const std::vector<Bytes> &parts);
Bytes Text(std::string_view s);   // the characters, no terminator
Bytes TextZ(std::string_view s);  // the characters and a zero byte
Bytes FromHex(std::string_view hex);  // two digits a byte, spaces between bytes
std::string ToHex(const Bytes &b);

// One option or parameter entry: u16 type, u16 length, value.
Bytes Entry(uint16_t type, const Bytes &value);
// The record with its length field set to `length`.
Bytes WithLength(Bytes record, size_t length);

// Head fields of a log record; the length is that of the head and what follows it. Every record
// carries the time 2026-12-31 23:59:59.999, weekday 4, monotonic 0x1_00000005 ms.
struct LogHead {
    uint32_t headWord = 0;
    uint32_t vrid = 0;
    uint32_t logId = 0x1001;
    uint16_t paraNum = 0;
    uint8_t level = 0xFF;
    uint8_t kind = 4;
    uint32_t optWord = 0;
};
Bytes LogRecord(const LogHead &head, const Bytes &afterHead);

// An event-object log record: the caller's options, the six sender options, then the parameters.
Bytes ObjectLogRecord(uint32_t logId, uint8_t kind, const std::vector<Bytes> &callerOptions,
                      const std::vector<Bytes> &params);
// A record by identifier: the service-name option "svc" and the parameter entries.
Bytes ByIdRecord(uint8_t kind, uint32_t logId, const std::vector<Bytes> &params);
// A debug record: key words, the level taken from the debug identifier, a VRID, parameters and text.
Bytes DebugRecord(uint32_t key0, uint32_t key1, uint32_t debugId, uint32_t vrid, const std::vector<Bytes> &params,
                  std::string_view text);
// An alarm (category 2) with the two common-attribute options, four sender options and one text parameter.
Bytes TypicalAlarm(uint32_t alarmId, std::string_view text);

// A numbered datagram: 8-byte head when streamType is absent (alarms), else the 20-byte head.
Bytes Datagram(uint8_t flags, uint32_t seq, std::optional<uint16_t> streamType, const Bytes &body);

}  // namespace wiretest

#endif
