// Where acctl finds what it needs once installed, and where the build tree
// keeps it otherwise: the module's shared object, the default store of a
// root process and the run-time directory of a running `acctl enforce`.
#pragma once

#include <string>

namespace host::cli {

// The module next to the program when installed (`installedRelative` taken
// from the directory of /proc/self/exe), else `buildPath`.
std::string DefaultModulePath(const std::string& installedRelative, const std::string& buildPath);

// The store of a root process without --db, and its directory.
inline constexpr const char* kSystemStoreDir = "/var/lib/acctl";
inline constexpr const char* kSystemStorePath = "/var/lib/acctl/acctl.db";

}  // namespace host::cli
