// Fuzz target: the alias file, through the key list parser the alias calls
// read it with, then the getter's lookup, the setter's change and the
// writer's text, for a WWN taken from the input.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "config/config.h"
#include "params/hostinfo.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 9) return 0;
    QMX_WWN wwn;
    std::memcpy(wwn.wwn, data, 8);
    const qmx::alias::Kind kind = (data[8] & 1) ? qmx::alias::kPort : qmx::alias::kHba;
    util_para *list = nullptr;
    int n = qmx::parseKeyLine(reinterpret_cast<const char *>(data + 9), size - 9, &list);
    if (n < 0) return 0;
    // The alias calls work on views of the items read.
    std::vector<qmx::ConfItem> items;
    for (int i = 0; i < n; ++i) items.push_back(qmx::ConfItem{qmx::keyOf(list[i]), qmx::valueOf(list[i])});
    const qmx::alias::WwnKey key = qmx::alias::wwnKey(wwn);
    std::string_view found = qmx::alias::find(items.data(), n, key.text, kind);
    if (found.size() >= sizeof(util_para::value)) __builtin_trap();

    static const char kName[] = "fuzzed-alias";
    util_para add[2];
    qmx::alias::plan(items.data(), n, key.text, kind, kName, sizeof kName - 1, add);
    std::string text;
    qmx::alias::buildText(items.data(), n, add, 2, text);
    // The rewritten file is one line, and the new name is in it.
    if (text.find('\n') != std::string::npos) __builtin_trap();
    if (text.find(kName) == std::string::npos) __builtin_trap();
    std::free(list);
    return 0;
}
