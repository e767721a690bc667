// Values of option and parameter entries, decoded by type code. Options share one family of types;
// parameters come in two families that reuse the same numbers: the format analyser's codes
// (QV_FMT_PARA_*, by-identifier and debug records) and the caller-chosen types of event objects.
// Each writer adds "as" (how the value was read) and "value" to the open entry object; a value whose
// type is unknown, or whose length does not match its type, is written as hex with "as":"hex".
#ifndef QV_TOOLS_ENTRY_VALUES_H
#define QV_TOOLS_ENTRY_VALUES_H

#include <cstdint>

#include "byte_view.h"
#include "json_writer.h"

namespace qvdecode {

void WriteOptionValue(uint16_t type, Bytes value, JsonWriter &w);
void WriteFormatParaValue(uint16_t type, Bytes value, JsonWriter &w);
void WriteObjectParaValue(uint16_t type, Bytes value, JsonWriter &w);

// The bytes of a zero-terminated text: up to its first zero byte, or all of them.
Bytes TextBeforeZero(Bytes value);

}  // namespace qvdecode

#endif
