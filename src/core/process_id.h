// The calling process's id, read once and kept: asking the kernel on every report would cost a system
// call each time. A forked child reads its own id again.
#ifndef QV_CORE_PROCESS_ID_H
#define QV_CORE_PROCESS_ID_H

#include <cstdint>

namespace qv {

uint32_t ProcessId();

}  // namespace qv

#endif
