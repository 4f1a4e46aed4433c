// Fuzz target: the disk configuration record.  The first byte chooses the
// input:
//   even: the bytes are a record file, read with the same reader the
//         library uses on "/opt/kestrel/drivers/hba/qmxldd_lumap.conf";
//         a record read without error, written again in writer order and
//         read back, gives the same text (the writer's output is a fixed
//         point of the reader);
//   odd:  the bytes are an LU map reply of the multipath driver (header and
//         entries, whatever counts and sizes they claim), stored into a tree
//         the way the capture stores it.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "diskconf/diskconf.h"
#include "frame/frame.h"

namespace {

std::string recordPath() {
    static const std::string path = "/tmp/fuzz_lumap_" + std::to_string(getpid()) + ".conf";
    return path;
}

bool writeBytes(const std::string &path, const uint8_t *data, size_t size) {
    FILE *fp = std::fopen(path.c_str(), "we");
    if (fp == nullptr) return false;
    bool ok = std::fwrite(data, 1, size, fp) == size;
    return std::fclose(fp) == 0 && ok;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) return 0;
    QMX_DISK_CONFIG tree;
    std::memset(&tree, 0, sizeof tree);
    if ((data[0] & 1) == 0) {
        const std::string path = recordPath();
        if (!writeBytes(path, data + 1, size - 1)) return 0;
        int flag = 0;
        if (qmx::diskconf::readLuMap(path.c_str(), &flag, &tree) == 0) {
            std::string once, twice;
            qmx::diskconf::buildLuMapText(flag, &tree, once);
            QMX_DiskConfigTblFree(&tree);
            if (!writeBytes(path, reinterpret_cast<const uint8_t *>(once.data()), once.size()))
                return 0;
            int again = 0;
            if (qmx::diskconf::readLuMap(path.c_str(), &again, &tree) != 0) __builtin_trap();
            qmx::diskconf::buildLuMapText(again, &tree, twice);
            if (once != twice) __builtin_trap();
        }
        QMX_DiskConfigTblFree(&tree);
        return 0;
    }
    std::vector<uint8_t> reply(QMX_MP_LU_SIZE(QMX_MP_LUMAP_MAX), 0);
    std::memcpy(reply.data(), data + 1, size - 1 < reply.size() ? size - 1 : reply.size());
    if (malloc_lumap_tbl(&tree, 0, 0, -1) == 0 &&
        qmx::diskconf::storeLuReply(reply.data(), &tree, 0, 0)) {
        const QMX_DISK_CONF_TGT *t = tree.adapt[0]->tgt[0];
        for (const QMX_DISK_CONF_LU *lu : t->lu)
            if (lu != nullptr && lu->valid_luid_byte > QMX_MP_LUID_LEN) __builtin_trap();
    }
    QMX_DiskConfigTblFree(&tree);
    return 0;
}
