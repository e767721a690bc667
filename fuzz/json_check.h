// A strict check that a line is exactly one JSON object, for fuzz targets whose program writes JSON
// Lines: objects, arrays, strings with their escapes and valid UTF-8 only, integers, true, false and
// null. It is built without coverage instrumentation, so the fuzzer steers by the program's branches,
// not by the checker's.
#ifndef QV_FUZZ_JSON_CHECK_H
#define QV_FUZZ_JSON_CHECK_H

#include <string_view>

namespace qvfuzz {

bool IsOneJsonObject(std::string_view line);

}  // namespace qvfuzz

#endif
