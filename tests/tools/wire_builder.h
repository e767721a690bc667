// Byte-exact records and datagrams for the tool tests, built field by field at the named offsets of
// the wire header (records little-endian as on the device, datagram heads big-endian).
#ifndef QV_TEST_TOOLS_WIRE_BUILDER_H
#define QV_TEST_TOOLS_WIRE_BUILDER_H

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace wiretest {

using Bytes = std::vector<uint8_t>;

Bytes Le16(uint16_t v);
Bytes Le32(uint32_t v);
Bytes Le64(uint64_t v);
Bytes Cat(std::initializer_list<Bytes> parts);
Bytes Text(std::string_view s);   // the characters, no terminator
Bytes TextZ(std::string_view s);  // the characters and a zero byte
Bytes FromHex(std::string_view hex);
std::string ToHex(const Bytes &b);

// One option or parameter entry: u16 type, u16 length, value.
Bytes Entry(uint16_t type, const Bytes &value);

// Head fields of a log record; the length is filled in from what follows the head.
struct LogHead {
    uint32_t headWord = 0;
    uint32_t vrid = 0;
    uint32_t logId = 0x1001;
    uint16_t paraNum = 0;
    uint8_t level = 0xFF;
    uint8_t kind = 4;
    uint32_t optWord = 0;
};

// The time every test record carries: 2026-12-31 23:59:59.999, a Thursday, monotonic 0x1_00000005 ms.
Bytes TestSysTime();

Bytes LogRecord(const LogHead &head, const Bytes &afterHead);

// An event-object log record: the caller's options, the six sender options, then the parameters.
Bytes ObjectLogRecord(uint32_t logId, uint8_t kind, const std::vector<Bytes> &callerOptions,
                      const std::vector<Bytes> &params);
// A record by identifier: the service-name option and the parameter entries.
Bytes ByIdRecord(uint8_t kind, uint32_t logId, const std::vector<Bytes> &params);
// A debug record: key words, the level of the debug identifier, a VRID and the text.
Bytes DebugRecord(uint32_t key0, uint32_t key1, uint32_t debugId, uint32_t vrid, const std::vector<Bytes> &params,
                  std::string_view text);

struct AlarmHead {
    uint32_t alarmId = 0x2002;
    uint8_t attrMarker = 0xFF;
    uint8_t paraNum = 0;
    uint8_t attrByte = 3;
    uint8_t category = 2;
    uint32_t attrWord = 0x0304;
    uint32_t optWord = 0;
};
Bytes AlarmRecord(const AlarmHead &head, const Bytes &afterHead);
// An alarm with the two common-attribute options, the four sender options and one text parameter.
Bytes TypicalAlarm(uint32_t alarmId, std::string_view text);

// A numbered datagram: 8-byte head when streamType is absent (alarms), else the 20-byte head.
Bytes Datagram(uint8_t flags, uint32_t seq, std::optional<uint16_t> streamType, const Bytes &body);

constexpr const char *kServiceName = "svc";

}  // namespace wiretest

#endif
