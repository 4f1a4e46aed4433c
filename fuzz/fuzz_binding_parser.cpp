// Fuzz target: the parser of binding items into the binding tables (lines,
// continuations, blank- and colon-separated items, hostile key texts), then
// the writer's binding-mode text built from the tables it filled.  The first
// byte's low bits repeat the parse up to three more times without clearing
// the adapter table, as successive parses in one process do, so the adapter
// table's overflow is reached.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "config/config.h"
#include "multipath/binding.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    qmx::binding::clearTables();
    int rounds = 1 + (size > 0 ? data[0] & 3 : 0);
    for (int i = 0; i < rounds; ++i)
        (void)qmx::binding::parseText(reinterpret_cast<const char *>(data), size);
    if (bind_cnt < 0 || bind_cnt > BINDMAX || wwpn_cnt < 0 || wwpn_cnt > HADAPTMAX ||
        pbind_cnt < 0 || pbind_cnt > bind_cnt)
        __builtin_trap();
    for (int i = 0; i < bind_cnt; ++i)
        if (strnlen(TBLKEY[i].bind, sizeof TBLKEY[i].bind) == sizeof TBLKEY[i].bind)
            __builtin_trap();
    for (int i = 0; i < wwpn_cnt; ++i)
        if (strnlen(WWPN[i].bind, sizeof WWPN[i].bind) == sizeof WWPN[i].bind) __builtin_trap();
    std::string out;
    qmx::buildConfText(nullptr, 0, nullptr, 0, 1, out);
    // Each record is written as one item of bounded length.
    if (out.size() > std::size_t(bind_cnt + wwpn_cnt) * 192) __builtin_trap();
    return 0;
}
