// Which renderer serves a conversion: the format-type table of the basic conversion characters, and
// the type names of the named conversions, matched by prefix.
#include <cstring>
#include <string_view>

#include "qvagent/qv_agent_log.h"

constexpr QvAgentFmtTypeProcFunc g_astQVAgentFmtTypeProcFuncTbl[QV_AGENT_FMT_TYPE_TBL_SIZE] = {
    {'c', QV_Agent_ProcChar}, {'s', QV_Agent_ProcString}, {'x', QV_Agent_ProcHex},
    {'d', QV_Agent_ProcInt},  {'i', QV_Agent_ProcInt},    {'u', QV_Agent_ProcUInt},
    {'b', QV_Agent_ProcBlock}, {'f', QV_Agent_ProcFloat},
};

namespace {

constexpr char kNamedMark = '_';
constexpr char kSizedMark = 'T';

struct NamedType {
    std::string_view name;  // compared as a prefix of the format's text
    QvAgentFmtProcFn proc;
};

// Searched in this order; the first whose prefix matches wins, whatever follows it.
constexpr NamedType kNamedTypes[] = {
    {"ipv4", QV_Agent_ProcIPV4}, {"ipv6", QV_Agent_ProcIPV6}, {"mac", QV_Agent_ProcMAC},
    {"VSID", QV_Agent_ProcVRID}, {"VRID", QV_Agent_ProcVRID}, {"datetime", QV_Agent_ProcDateTime},
};

}  // namespace

QvAgentFmtProcFn QV_Agent_GetHandlerByType(const char *conversion) {
    if (conversion == nullptr) return nullptr;
    if (*conversion == kNamedMark) return QV_Agent_GetHandlerByUserDefineType(conversion + 1);
    const auto character = static_cast<unsigned char>(*conversion);
    for (const QvAgentFmtTypeProcFunc &row : g_astQVAgentFmtTypeProcFuncTbl) {
        if (row.uiFmtType == character) return row.pfnProc;
    }
    return nullptr;
}

QvAgentFmtProcFn QV_Agent_GetHandlerByUserDefineType(const char *name) {
    if (name == nullptr) return nullptr;
    for (const NamedType &type : kNamedTypes) {
        if (std::strncmp(name, type.name.data(), type.name.size()) == 0) return type.proc;
    }
    return *name == kSizedMark ? QV_Agent_ProcNomalType : nullptr;
}
