// Stand-in for the platform's dynamic loading (PAL_DlOpen, PAL_DlSym, PAL_DlClose): thin wrappers
// over the system loader that turn null arguments into failures instead of passing them on.
#include <dlfcn.h>

#include <cstdint>

#include "qvplatform/pal.h"

// Opens the shared library at path, resolving every symbol at once for PAL_DL_NOW and on first use
// for any other mode; null for a null path or when the library cannot be loaded.
extern "C" void *PAL_DlOpen(const char *path, uint32_t mode) {
    if (path == nullptr) {
        return nullptr;
    }
    return dlopen(path, mode == PAL_DL_NOW ? RTLD_NOW : RTLD_LAZY);
}

// The address of symbol in a library of PAL_DlOpen; null when it is missing or an argument is null.
extern "C" void *PAL_DlSym(void *handle, const char *symbol) {
    if (handle == nullptr || symbol == nullptr) {
        return nullptr;
    }
    return dlsym(handle, symbol);
}

// Closes a library of PAL_DlOpen: 0 on success, nonzero for null or when the loader refuses.
extern "C" uint32_t PAL_DlClose(void *handle) {
    if (handle == nullptr) {
        return 1;
    }
    return dlclose(handle) == 0 ? 0u : 1u;
}
