/// What systems name differently in a file's state.
#ifndef KIVOS_FILES_H
#define KIVOS_FILES_H

#include <sys/stat.h>

namespace kivos {

/// When the file's content changed last.
inline const timespec& last_change(const struct stat& state) {
#ifdef __APPLE__
    return state.st_mtimespec;
#else
    return state.st_mtim;
#endif
}

}  // namespace kivos

#endif
