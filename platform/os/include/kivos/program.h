/// The program that runs.
#ifndef KIVOS_PROGRAM_H
#define KIVOS_PROGRAM_H

#include <string>

namespace kivos {

/// The file of this program, with links resolved where the system does so. Throws
/// std::filesystem::filesystem_error when the system does not tell.
std::string program_file();

}  // namespace kivos

#endif
