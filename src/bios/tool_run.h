// Shared pieces of the calls that start the adapter tools (firmware and
// diagnostics): the tool directory and the shell run.
#pragma once

#include <string>
#include <string_view>

namespace qmx {

// The directory of the adapter tools.
inline constexpr const char *kAdapterToolDir = "/opt/kestrel/drivers/hba";

// Whether the tool directory exists and is a directory.
bool toolDirIsDirectory() noexcept;
// Whether anything exists at the tool directory's path.
bool toolDirExists() noexcept;

// "<dir>/<tool>" when the tool directory is a directory, else the bare
// name for the shell's search path.
std::string toolCommand(std::string_view tool);

// Runs a command line through the system shell with the standard streams
// flushed first.  The wait status of system().
int runShell(const std::string &cmd) noexcept;

}  // namespace qmx
