// The multipath listings' bounds: the LU path listing's 65536 paths count
// only the paths it can show, and a full LU ID list says so.
#include <cstdlib>
#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include "multipath/mpruntime.h"

namespace {

using namespace qmx::mp;

// One port whose target map holds `targets` targets of 2048 LUs each; the
// LUs of the first target have LUNs 2048 to 4095, the others 0 to 2047.
class ScriptedDriver : public DriverChannel {
public:
    explicit ScriptedDriver(uint32_t targets) : targets_(targets) {}
    int request(int, unsigned long req, void *arg) noexcept override {
        if (req == IOCTL_QMX_MP_TGTMAP) {
            auto *m = static_cast<qmx_mp_target *>(arg);
            m->header.target_count = targets_;
            for (uint32_t t = 0; t < targets_; ++t) {
                mp_target_entry e{};
                e.targetid = uint8_t(t);
                e.groupid = uint8_t(t);
                std::memcpy(reinterpret_cast<unsigned char *>(m) + sizeof(mp_target_header) + t * sizeof e, &e,
                            sizeof e);
            }
        } else if (req == IOCTL_QMX_MP_LUMAP) {
            auto *m = static_cast<qmx_mp_lu *>(arg);
            m->header.lu_count = QMX_MP_LUMAP_MAX;
            auto *e = reinterpret_cast<mp_lu_entry *>(reinterpret_cast<unsigned char *>(m) + sizeof(mp_lu_header));
            for (uint32_t j = 0; j < QMX_MP_LUMAP_MAX; ++j) {
                e[j] = mp_lu_entry{};
                e[j].lun = (lumaps_ == 0 ? 2048 : 0) + j;
            }
            ++lumaps_;
        }
        return 0;
    }

private:
    uint32_t targets_;
    uint32_t lumaps_ = 0;
};

TEST(LuPathBound, UnlistablePathsTakeNoPlace) {
    MapBuffers b;
    ASSERT_TRUE(b.allocTarget() && b.allocLu());
    std::vector<qmx_spfile> slots(kMaxPorts);
    std::memset(slots.data(), 0, slots.size() * sizeof(qmx_spfile));
    slots[0].valid = kSpfileValid;
    slots[0].fd = 1000;
    // 1 target of unlistable paths, then 32 of 2048 listable ones: exactly
    // the bound.
    ScriptedDriver drv(33);
    std::vector<LuWork> work;
    gatherLuPaths(drv, slots.data(), b, work);
    std::vector<uint32_t> order;
    listingOrder(work, order);
    EXPECT_EQ(order.size(), kMaxLuPaths);
}

TEST(LuIdBound, AFullListReportsTheCut) {
    // A list already at its 65536 ids; one reply with a new id.
    QMX_NMPATH_STATUS nm{};
    nm.info_cnt = QMX_LUPATH_MAX;
    std::vector<QMX_NMPATH_LU> room(QMX_LUPATH_MAX);
    nm.info = room.data();
    MapBuffers b;
    ASSERT_TRUE(b.allocLu());
    b.lumap()->header.lu_count = 1;
    LuIdIndex index;
    EXPECT_EQ(addLuIds(&nm, b.lumap(), 1, index, nullptr), 1);
    EXPECT_EQ(nm.info_cnt, QMX_LUPATH_MAX);
    // Below the bound the reply is taken.
    nm.info_cnt = 0;
    nm.info = static_cast<QMX_NMPATH_LU *>(std::malloc(sizeof(QMX_NMPATH_LU) * 16384));
    ASSERT_NE(nm.info, nullptr);
    EXPECT_EQ(addLuIds(&nm, b.lumap(), 1, index, nullptr), 0);
    EXPECT_EQ(nm.info_cnt, 1);
    releaseLuIds(&nm);
}

}  // namespace
