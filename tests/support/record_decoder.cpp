// Decodes queued records back into fields.
#include "record_decoder.h"

#include <cstring>

#include "event/send_list.h"

namespace qvtest {

namespace {

template <typename T>
T At(const Bytes &b, size_t offset) {
    T v{};
    std::memcpy(&v, b.data() + offset, sizeof v);
    return v;
}

// Reads `count` entries (or all up to `end` when count is negative) starting at `offset`.
bool ReadEntries(const Bytes &b, size_t &offset, size_t end, long count, std::vector<Entry> &out) {
    while (count < 0 ? offset < end : static_cast<long>(out.size()) < count) {
        if (offset + QV_ENTRY_HEAD_LEN > end) return false;
        Entry e;
        e.type = At<uint16_t>(b, offset + QV_ENTRY_TYPE_OFF);
        const uint16_t len = At<uint16_t>(b, offset + QV_ENTRY_LEN_OFF);
        if (offset + QV_ENTRY_HEAD_LEN + len > end) return false;
        e.value.assign(b.begin() + static_cast<long>(offset + QV_ENTRY_HEAD_LEN),
                       b.begin() + static_cast<long>(offset + QV_ENTRY_HEAD_LEN + len));
        out.push_back(std::move(e));
        offset += QV_ENTRY_HEAD_LEN + len;
    }
    return true;
}

}  // namespace

uint32_t Entry::U32() const { return value.size() == 4 ? At<uint32_t>(value, 0) : 0xDEADBEEF; }
uint16_t Entry::U16() const { return value.size() == 2 ? At<uint16_t>(value, 0) : 0xDEAD; }

DecodedRecord DecodeRecord(const Bytes &b) {
    DecodedRecord r;
    if (b.size() < 4) {
        r.error = "shorter than a record head";
        return r;
    }
    r.recordType = At<uint16_t>(b, QV_REC_TYPE_OFF);
    r.length = At<uint16_t>(b, QV_REC_LEN_OFF);
    const bool isLog = r.recordType == QV_REC_TYPE_LOG;
    const size_t headLen = isLog ? QV_LOG_HEAD_LEN : QV_ALARM_HEAD_LEN;
    if (b.size() < headLen || r.length != b.size()) {
        r.error = "length field " + std::to_string(r.length) + " for " + std::to_string(b.size()) + " bytes";
        return r;
    }
    r.year = At<uint16_t>(b, QV_LOG_TIME_OFF + QV_TIME_YEAR_OFF);
    r.month = b[QV_LOG_TIME_OFF + QV_TIME_MONTH_OFF];
    r.day = b[QV_LOG_TIME_OFF + QV_TIME_DAY_OFF];
    r.hour = b[QV_LOG_TIME_OFF + QV_TIME_HOUR_OFF];
    r.minute = b[QV_LOG_TIME_OFF + QV_TIME_MINUTE_OFF];
    r.second = b[QV_LOG_TIME_OFF + QV_TIME_SECOND_OFF];
    r.weekday = b[QV_LOG_TIME_OFF + QV_TIME_WEEKDAY_OFF];
    r.millisecond = At<uint32_t>(b, QV_LOG_TIME_OFF + QV_TIME_MS_OFF);
    if (isLog) {
        r.headWord = At<uint32_t>(b, QV_LOG_HEAD_WORD_OFF);
        r.vrid = At<uint32_t>(b, QV_LOG_VRID_OFF);
        r.msgId = At<uint32_t>(b, QV_LOG_ID_OFF);
        r.paraCount = At<uint16_t>(b, QV_LOG_PARA_NUM_OFF);
        r.level = b[QV_LOG_LEVEL_OFF];
        r.kind = b[QV_LOG_KIND_OFF];
        r.monotonicMs = (uint64_t{At<uint32_t>(b, QV_LOG_TIME_OFF + QV_TIME_MONO_HIGH_OFF)} << 32) |
                        At<uint32_t>(b, QV_LOG_TIME_OFF + QV_TIME_MONO_LOW_OFF);
        r.optionWord = At<uint32_t>(b, QV_LOG_OPT_COUNT_OFF);
    } else {
        r.msgId = At<uint32_t>(b, QV_ALARM_ID_OFF);
        r.attrMarker = b[QV_ALARM_ATTR_MARKER_OFF];
        r.paraCount = b[QV_ALARM_PARA_NUM_OFF];
        r.attrByte = b[QV_ALARM_ATTR_BYTE_OFF];
        r.category = b[QV_ALARM_CATEGORY_OFF];
        r.attrWord = At<uint32_t>(b, QV_ALARM_ATTR_WORD_OFF);
        r.optionWord = At<uint32_t>(b, QV_ALARM_OPT_COUNT_OFF);
    }
    size_t offset = headLen;
    if (!ReadEntries(b, offset, b.size(), r.optionWord & 0xFF, r.options) ||
        !ReadEntries(b, offset, b.size(), r.paraCount, r.params)) {
        r.error = "entries run past the record";
        return r;
    }
    r.tail.assign(b.begin() + static_cast<long>(offset), b.end());
    r.ok = true;
    return r;
}

std::vector<Bytes> ListRecords(QvAgentModule *module, uint32_t k) {
    std::vector<Bytes> out;
    QvAgentSendList &list = module->astSendList[k];
    for (QvAgentListItem *item = list.pstNext; item != qv::sendlist::Head(list); item = item->pstNext) {
        out.emplace_back(item->pucData, item->pucData + item->uiLen);
    }
    return out;
}

void DrainLists(QvAgentModule *module) {
    for (QvAgentSendList &list : module->astSendList) {
        while (QvAgentListItem *item = qv::sendlist::First(list)) {
            qv::sendlist::Unlink(list, item);
            qv::sendlist::Release(item, module);
        }
    }
}

}  // namespace qvtest
