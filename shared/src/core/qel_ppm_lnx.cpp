// Opening the start-up parameter file.
//
// The file lies where anybody may put one: a pipe or a device of that name must neither block the first call
// of a process nor feed it for ever. So it is opened without waiting and read only if it is a regular file.
#include <fcntl.h>
#include <sys/stat.h>

#include <cstdlib>

#include "core/qel_fd.hpp"
#include "core/qel_ppm_file.hpp"

namespace qel {
namespace {

constexpr const char* kPath = "/tmp/qeltest-ppm.conf";
constexpr const char* kSectionVariable = "QELTEST_PROC";

bool is_regular(int fd) {
    struct stat status {};
    return fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
}

}  // namespace

StartupFile open_startup_file() {
    Fd fd{open(kPath, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)};
    if (!fd || !is_regular(fd.get())) return StartupFile{};
    StartupFile file{fdopen(fd.get(), "r")};
    if (file) static_cast<void>(fd.release());  // The stream owns the descriptor now.
    return file;
}

const char* startup_section() {
    const char* name = std::getenv(kSectionVariable);
    return name != nullptr ? name : "";
}

}  // namespace qel
