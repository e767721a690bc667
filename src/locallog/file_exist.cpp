// Whether a file exists or is empty.
#include "locallog/file_exist.h"

#include <sys/stat.h>

uint32_t QV_AGENT_IsFileExist(const char *path) {
    struct stat st;
    return path != nullptr && ::stat(path, &st) == 0 ? 1u : 0u;
}

uint32_t QV_AGENT_IsFileEmpty(const char *path) {
    struct stat st;
    return path != nullptr && ::stat(path, &st) == 0 && st.st_size == 0 ? 1u : 0u;
}
