// Helpers of the local log tests.
#include "locallog_support.h"

#include <cstring>

#include "test_support.h"

namespace qvtest {

std::string BootLogPath(const std::string &name) { return "/opt/zanthe/var/log/" + name + ".log"; }

void UseBootLog(const std::string &name) { QV_Agent_SysbootLogInit(name.c_str()); }

uint32_t WriteInfoLine(uint32_t length, char fill) {
    const std::string text(length - kInfoLineOverhead, fill);
    return QV_Agent_SysbootLog("p", QV_AGENT_BOOTLOG_INFO, "%s", text.c_str());
}

QvAgentPlogHead ReadHeadOf(const std::string &path) {
    const std::string bytes = ReadFile(path);
    QvAgentPlogHead head{};
    if (bytes.size() >= sizeof head) std::memcpy(&head, bytes.data(), sizeof head);
    return head;
}

}  // namespace qvtest
