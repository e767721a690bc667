// Where the collector puts the records of every datagram when it runs with a stream: handed over
// without waiting, answered later. The receive loop polls WakeFd() beside its sockets and releases a
// datagram's acknowledgement only on a positive answer.
#ifndef QV_TOOLS_COLLECTOR_RECORD_STORE_H
#define QV_TOOLS_COLLECTOR_RECORD_STORE_H

#include <cstdint>
#include <vector>

#include "collector.h"

namespace qvcollector {

class RecordStore {
public:
    struct Answer {
        uint64_t token = 0;      // as given to Publish
        bool stored = false;     // false: refused, failed or not answered in time
        bool duplicate = false;  // stored before under the same message id
    };

    virtual ~RecordStore() = default;
    // Readable while answers wait to be taken.
    virtual int WakeFd() const = 0;
    // Hands over one datagram's records; false when it cannot take them now (not connected yet, or
    // too many unanswered): nothing was sent then, and no answer will come.
    virtual bool Publish(const ToStore &item, uint64_t token) = 0;
    // Moves the answers that arrived into out.
    virtual void TakeAnswers(std::vector<Answer> &out) = 0;
    // Waits up to timeoutMs until everything handed over is answered (before the collector exits).
    virtual void Settle(int timeoutMs) = 0;
};

}  // namespace qvcollector

#endif
