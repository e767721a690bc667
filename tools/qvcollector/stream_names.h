// What a datagram is called in the stream: the subject its records go under (kind and service) and
// the message id that makes a resent datagram a duplicate the stream drops. No NATS code here, so
// that the names are the same whether or not the client library is built in.
#ifndef QV_TOOLS_COLLECTOR_STREAM_NAMES_H
#define QV_TOOLS_COLLECTOR_STREAM_NAMES_H

#include <cstdint>
#include <string>
#include <string_view>

#include "datagram.h"

namespace qvcollector {

// Every subject begins with this token; a stream made by the collector takes "qv.>".
inline constexpr std::string_view kSubjectRoot = "qv";

// The service name carried by a log, alarm or debug record (its service-name option), or empty.
std::string ServiceOfRecord(Bytes record);

// "qv.<kind>.<service>", the service made one subject token: characters that NATS gives a meaning
// ('.', '*', '>', white space) become '_', and an empty name becomes "_".
std::string SubjectOf(Kind kind, std::string_view service);

// A 64-bit hash of the datagram's bytes: equal bytes, equal hash.
uint64_t DatagramHash(Bytes datagram);

// "<kind>-<sender IPv4 hex>-<sequence>-<hash hex>": the same for every copy of one datagram from one
// sender, different for any datagram with other bytes, even under a sequence number used before.
std::string MessageId(Kind kind, uint32_t senderIp, uint32_t seq, uint64_t hash);

}  // namespace qvcollector

#endif
