// Fuzz target: the BIOS tool's configuration listing parser, through the same
// stream parser the library uses on the tool's listing file.
#include <cstddef>
#include <cstdint>

#include "bios/bios.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    // The decoded tables are process state that carries over from one input
    // to the next, as it does between listings in one process.
    qmx_CfgParseBuffer(reinterpret_cast<const char *>(data), size);
    // The row cursor must always stay within what a listing can move it to.
    if (bt_st < -1) __builtin_trap();
    return 0;
}
