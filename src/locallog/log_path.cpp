// Paths of the local log file: splitting a path into its directory and file name, and resolving the
// directory, which proves that it exists before the file is opened.
#include <climits>
#include <cstdlib>
#include <cstring>

#include "qvagent/qv_agent_bootlog.h"
#include "qvplatform/qv_bounded.h"

namespace {

constexpr size_t kDirBuffer = 256;
constexpr size_t kNameBuffer = 128;

constexpr bool IsSeparator(char c) { return c == '/' || c == '\\'; }

}  // namespace

// The directory part keeps its separator; a separator in the first character counts too, so that a
// file directly under the root directory has the directory "/".
uint32_t QV_AGENT_SplitPathFileName(const char *path, char *dir, uint32_t dirSize, char *name, uint32_t nameSize) {
    if (dir != nullptr && dirSize != 0) dir[0] = '\0';
    if (name != nullptr && nameSize != 0) name[0] = '\0';
    if (path == nullptr || path[0] == '\0' || dir == nullptr || dirSize == 0 || name == nullptr || nameSize == 0) {
        return 0;
    }
    size_t dirLen = std::strlen(path);
    while (dirLen > 0 && !IsSeparator(path[dirLen - 1])) --dirLen;
    if (dirLen > 0 && strncpy_s(dir, dirSize, path, dirLen) != QV_EOK) return 0;
    return strcpy_s(name, nameSize, path + dirLen) == QV_EOK ? 1u : 0u;
}

// realpath() writes into a buffer of the caller's, so the agent allocates nothing here.
uint32_t QV_AGENT_GetAbsolutePathAndFileName(const char *path, char *out, uint32_t outSize) {
    if (path == nullptr || out == nullptr) return QV_AGENT_PATH_ERR_FAILED;
    if (outSize == 0) return QV_AGENT_PATH_ERR_NO_ROOM;
    char dir[kDirBuffer];
    char name[kNameBuffer];
    if (QV_AGENT_SplitPathFileName(path, dir, sizeof dir, name, sizeof name) == 0) return QV_AGENT_PATH_ERR_FAILED;
    char resolved[PATH_MAX];
    if (::realpath(dir, resolved) == nullptr) return QV_AGENT_PATH_ERR_FAILED;
    return snprintf_s(out, outSize, "%s/%s", resolved, name) < 0 ? QV_AGENT_PATH_ERR_FAILED : QV_AGENT_PATH_OK;
}
