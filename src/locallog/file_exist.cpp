// Whether a file exists.
#include "locallog/file_exist.h"

#include <sys/stat.h>

uint32_t QV_AGENT_IsFileExist(const char *path) {
    struct stat st;
    return path != nullptr && ::stat(path, &st) == 0 ? 1u : 0u;
}
