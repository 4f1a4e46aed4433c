// Fuzz target: the configuration file parser, through the same line parser
// the key list reader uses on "/etc/qmxldd.conf", followed by the writer's
// regrouping of the parsed list (in memory) in both modes.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "config/config.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    util_para *list = nullptr;
    int n = qmx::parseKeyLine(reinterpret_cast<const char *>(data), size, &list);
    if (n <= 0) {
        if (list != nullptr) __builtin_trap();
        return 0;
    }
    // Every filled field is terminated inside itself.
    for (int i = 0; i < n; ++i)
        if (strnlen(list[i].keyword, sizeof list[i].keyword) == sizeof list[i].keyword ||
            strnlen(list[i].value, sizeof list[i].value) == sizeof list[i].value)
            __builtin_trap();
    // The regrouped text (binding tables are empty here) never holds more
    // bytes than the list's fields can.
    std::string out;
    int mode = size > 0 && (data[0] & 1) ? 1 : 0;
    qmx::buildConfText(list, n, nullptr, 0, mode, out);
    if (out.size() > std::size_t(n) * (262 + 1 + 127 + 1)) __builtin_trap();
    std::free(list);
    return 0;
}
