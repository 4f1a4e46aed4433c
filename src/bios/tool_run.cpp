// The tool directory and the shell run shared by the firmware and
// diagnostic calls.
#include "bios/tool_run.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>

namespace qmx {

bool toolDirIsDirectory() noexcept {
    struct stat st;
    return stat(kAdapterToolDir, &st) == 0 && S_ISDIR(st.st_mode);
}

bool toolDirExists() noexcept {
    struct stat st;
    return stat(kAdapterToolDir, &st) == 0;
}

std::string toolCommand(std::string_view tool) {
    if (toolDirIsDirectory()) return std::string(kAdapterToolDir) + "/" + std::string(tool);
    return std::string(tool);
}

int runShell(const std::string &cmd) noexcept {
    std::fflush(nullptr);  // nothing buffered is written twice by the child
    return std::system(cmd.c_str());
}

}  // namespace qmx
