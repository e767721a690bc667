// The blackbox file's name, derived from the service type in the environment.
#include <cstdlib>

#include "blackbox/blackbox.h"
#include "core/paths.h"
#include "qvplatform/qv_bounded.h"

uint32_t QV_AGENT_GetFileBufName(char *name, int32_t size) {
    if (name == nullptr) return QV_AGENT_ERR_PARAM;
    if (size <= 0) return QV_AGENT_ERR_FAILED;
    const auto room = static_cast<size_t>(size);
    name[0] = '\0';
    const char *serviceType = std::getenv(qv::path::kServiceTypeEnv);
    if (serviceType == nullptr) return QV_AGENT_ERR_FAILED;
    if (snprintf_s(name, room, qv::path::kBlackboxFormat, serviceType) < 0) {
        name[0] = '\0';
        return QV_AGENT_ERR_FAILED;
    }
    return QV_AGENT_OK;
}
