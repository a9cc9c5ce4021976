// Readers of /proc for the product's components: the procfs root (which a
// containerised service may find elsewhere, told by VORN_HOST_PROCFS), the
// running executable, the path behind a descriptor, a process's root and
// working directory, and the kernel module list.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "zel/result.h"
#include "zel/types/string.h"

namespace tools {

inline constexpr const char* kProcfsRootVariable = "VORN_HOST_PROCFS";

// "/proc/", or the value of VORN_HOST_PROCFS when it names something that
// exists; always ending in "/". Computed once per process.
const std::string& GetProcfsRoot();

// 0 when a line of `modulesFile` begins with `name` (a longer module name
// with the same beginning counts too), 1 when none does, 0x80010102 when the
// file cannot be opened.
zel::result_t FindKernelModule(const char* name, const char* modulesFile = "/proc/modules");
bool IsRedirfsLoaded();

// The running executable; throws std::runtime_error when /proc/self/exe
// cannot be read.
zel::basic_string_t<char> GetExecutablePath();

// The path the kernel has for `fd`. 0xAD280004 when it is too long for a
// buffer of 4096 bytes, the errno mapping on other failures.
zel::result_t GetPathByFd(int fd, zel::basic_string_t<char>& path) noexcept;

// Stand-in text for a path too long to print.
inline constexpr const char* kLongPathText = "<PATH IS TOO LONG>";
inline constexpr const char16_t* kLongPathTextW = u"<PATH IS TOO LONG>";
std::string DescribeLongPath(std::uint64_t device, std::uint64_t inode);

// Open <procfs root><pid>/root or /cwd as a directory, so that a path of
// that process resolves in its own mount view. `fd` is replaced (what it
// held is closed); 0x8000004B when the open fails.
zel::result_t OpenProcessRoot(pid_t pid, int& fd) noexcept;
zel::result_t OpenProcessCwd(pid_t pid, int& fd) noexcept;

namespace detail {
// GetProcfsRoot without the cache, for tests that change the environment.
std::string ComputeProcfsRoot();
}  // namespace detail

}  // namespace tools
