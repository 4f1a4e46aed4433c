// Internal interface of the isolation calls.
#pragma once

namespace qmx::isolation {

// After a port was force-isolated: reads the port's BIOS data from the
// adapter and, when its boot BIOS is enabled, prints to standard output how
// to disable it (a port isolated at boot cannot boot through its BIOS).
void adviseBiosDisable(int ind) noexcept;

}  // namespace qmx::isolation
