// Fuzz target: the configuration module image's table reader: the marker
// scan over the start of a module file and the check of the entry chain,
// the same routines find_table and read_table run on the file.
#include <cstddef>
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "config/config.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    // find_table looks at the first area-size bytes only.
    std::size_t head = size < std::size_t(kTableAreaSize) ? size : std::size_t(kTableAreaSize);
    std::vector<char> buf(data, data + head);
    int off = search(buf.data(), int(buf.size()));
    if (off < -1 || (off >= 0 && std::size_t(off) >= head)) __builtin_trap();
    // read_table reads an area from the marker on, zero-filled past the end.
    std::vector<unsigned char> area(std::size_t(kTableAreaSize), 0);
    std::size_t from = off >= 0 ? std::size_t(off) : 0;
    if (from < size) std::memcpy(area.data(), data + from, std::min(size - from, area.size()));
    std::size_t at = 0;
    const char *fault = qmx::checkTableArea(area.data(), area.size(), &at);
    // A valid chain names a configuration value that lies inside the area.
    if (fault == nullptr && at + kConfigValueSize > area.size()) __builtin_trap();
    // Chains checked over a short buffer never read past it.
    std::vector<unsigned char> shortArea(data, data + size);
    qmx::checkTableArea(shortArea.data(), shortArea.size(), &at);
    return 0;
}
