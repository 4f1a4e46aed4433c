// Persistent binding in the virtual host: the collector over the driver's
// target and LU maps (scenario binding.json), the merge into the
// configuration file, deletion, the automatic mapping switch and the BIOS's
// persistent binding item.
#include <cstring>
#include <memory>
#include <string>

#include "vhost.h"

namespace {

constexpr const char *kModprobe = "/etc/modprobe.d/qmxldd_param.conf";

class Binding : public VHostTest {
protected:
    void SetUp() override {
        VHostTest::SetUp();
        if (IsSkipped()) return;
        // The host of the binding scenario: its ports, multipath parameters,
        // scripted faults and files.
        qmxsim::json scn = qmxsim::normalizeScenario(
            qmxsim::loadJsonFile(std::string(QMX_SCENARIO_DIR) + "/binding.json"));
        editState([&](qmxsim::json &s) {
            s["ports"] = scn["ports"];
            s["multipath"] = scn["multipath"];
            s["faults"] = scn["faults"];
        });
        for (auto &[path, text] : scn["files"].items()) writeFile(path, text.get<std::string>());
    }
    static std::unique_ptr<QMX_PERSISTENTBINDING> freshInfo() {
        return std::make_unique<QMX_PERSISTENTBINDING>();
    }
    static bool allFF(const void *p, std::size_t n) {
        const auto *b = static_cast<const unsigned char *>(p);
        for (std::size_t i = 0; i < n; ++i)
            if (b[i] != 0xFF) return false;
        return true;
    }
};

std::string zeroWords(const std::string &prefix) {
    std::string s;
    for (int k = 0; k < 4; ++k)
        s += prefix + "priority" + std::to_string(k) + "=0x0000000000000000:";
    return s;
}

const std::string kAdapterKeys =
    "qmxl0-wwpn=0x2100001122334450:qmxl1-wwpn=0x2100001122334451:"
    "qmxl2-wwpn=0x2100001122334460:qmxl3-wwpn=0x2100001122334461:";

TEST_F(Binding, AutoSetWritesEveryAdapterInGatheringOrder) {
    auto info = freshInfo();
    ASSERT_EQ(QMX_AutoSetPersistentBinding(info.get()), 0);
    // Target WWNs in the shortest hex form, priority words with 16 digits;
    // attribute 3 gets no priority items; the unusable entry of port 1 ends
    // its map; port 2's LU map failed, so none of its targets has words.
    EXPECT_EQ(readFile(kConf),
              "qmx_queue_depth=32:"
              "qmxl0-tid-0-wwpn=0x500000000000a01:qmxl0-tid-0-wwnn=0x500000000000a00:"
              "qmxl0-tid-0-gt=0:qmxl0-tid-0-attribute=0x01:"
              "qmxl0-tid-0-priority0=0x8400000000000000:qmxl0-tid-0-priority1=0x0200000000000000:"
              "qmxl0-tid-0-priority2=0x0000000000000000:qmxl0-tid-0-priority3=0x0080000000000000:"
              "qmxl0-tid-1-wwpn=0x5000000000000b01:qmxl0-tid-1-wwnn=0x5000000000000b00:"
              "qmxl0-tid-1-gt=1:qmxl0-tid-1-attribute=0x03:"
              "qmxl1-tid-0-wwpn=0x5000000000000a02:qmxl1-tid-0-wwnn=0x500000000000a00:"
              "qmxl1-tid-0-gt=0:qmxl1-tid-0-attribute=0x00:" +
                  zeroWords("qmxl1-tid-0-") +
                  "qmxl2-tid-0-wwpn=0x500000000000a03:qmxl2-tid-0-wwnn=0x500000000000a00:"
                  "qmxl2-tid-0-gt=0:qmxl2-tid-0-attribute=0x00:"
                  "qmxl2-tid-1-wwpn=0x5000000000000b03:qmxl2-tid-1-wwnn=0x5000000000000b00:"
                  "qmxl2-tid-1-gt=1:qmxl2-tid-1-attribute=0x00:" +
                  kAdapterKeys + "qmxl9-foo=1:");
    EXPECT_EQ(traceCount("(tgtmap->entry[i].flags & 0x03) != 0x03"), 1);
    EXPECT_EQ(traceCount("Get Bind Infomation"), 4);
    EXPECT_TRUE(traceHas("QMX_AutoSetPersistentBinding END"));
    EXPECT_EQ(driverRequests("IOCTL_QMX_MP_LUMAP", 2), 1);  // not retried after the failure
    // The report is cut to the 65 characters of QMX_G_ERROR_MES.
    EXPECT_TRUE(traceHas("qmxvlib:ioctl IOCTL_QMX_MP_LUMAP is error. errno(5:Input/output e"));

    const hba &h0 = info->hba_info[0];
    EXPECT_EQ(h0.adap_number, 0);
    EXPECT_EQ(std::memcmp(h0.hba_wwn.wwn, wwnOf(0x2100001122334450).wwn, 8), 0);
    EXPECT_EQ(std::memcmp(h0.target_info[0].port_wwn.wwn, wwnOf(0x0500000000000a01).wwn, 8), 0);
    EXPECT_EQ(h0.target_info[0].priority[0], 0x8400000000000000u);
    EXPECT_EQ(h0.target_info[1].attribute, 3);
    EXPECT_EQ(h0.target_info[1].group, 1);
    EXPECT_TRUE(allFF(&h0.target_info[1].priority, sizeof h0.target_info[1].priority));
    EXPECT_TRUE(allFF(&info->hba_info[1].target_info[1], sizeof(target)));
    EXPECT_EQ(info->hba_info[3].adap_number, 3);
    EXPECT_TRUE(allFF(&info->hba_info[3].target_info, sizeof info->hba_info[3].target_info));
    EXPECT_TRUE(allFF(&info->hba_info[4], sizeof(hba) * (QMX_BIND_ADAPTERS - 4)));
}

TEST_F(Binding, AutoSetEdgeCases) {
    // Multipath inactive: only the WWN items.
    editState([](qmxsim::json &s) {
        s["multipath"]["qmxmp"] = 0;
        s["faults"] = qmxsim::json::array();
    });
    auto info = freshInfo();
    ASSERT_EQ(QMX_AutoSetPersistentBinding(info.get()), 0);
    std::string conf = readFile(kConf);
    EXPECT_EQ(conf.find("-gt="), std::string::npos);
    EXPECT_EQ(conf.find("-priority"), std::string::npos);
    EXPECT_NE(conf.find("qmxl2-tid-1-wwnn=0x5000000000000b00:" + kAdapterKeys), std::string::npos);
    EXPECT_EQ(driverRequests("IOCTL_QMX_MP_LUMAP"), 0);

    // Null record: code 2, nothing written.
    EXPECT_TRUE(refused(QMX_AutoSetPersistentBinding(nullptr), QMX_ERR_INVALID_ARG, "bind_information == NULL"));
    EXPECT_EQ(readFile(kConf), conf);

    // No device files: no binding items, every slot 0xFF, success.
    for (int n = 0; n < 4; ++n) removeDeviceFile(n);
    ASSERT_EQ(QMX_AutoSetPersistentBinding(info.get()), 0);
    EXPECT_EQ(readFile(kConf), "qmx_queue_depth=32:qmxl9-foo=1:");
    EXPECT_TRUE(allFF(info.get(), sizeof *info));

    // An adapter whose information record cannot be read is skipped (its
    // failure kept in the reason code), not written as adapter 0 beside the
    // others' targets.
    editState([](qmxsim::json &) {});  // the device files back
    int before = driverRequests("IOCTL_QMX_SC_PRINFO", 2);
    failRequest("IOCTL_QMX_SC_PRINFO", 2, EIO, 1);
    ASSERT_EQ(QMX_AutoSetPersistentBinding(info.get()), 0);
    EXPECT_EQ(driverRequests("IOCTL_QMX_SC_PRINFO", 2), before + 1);
    EXPECT_NE(QMX_LastErrorCode(), 0);
    conf = readFile(kConf);
    EXPECT_EQ(conf.find("qmxl0-wwpn=0x0:"), std::string::npos) << conf;
    EXPECT_EQ(conf.find("wwpn=0x500000000000a03"), std::string::npos) << conf;
    EXPECT_NE(conf.find("qmxl3-wwpn=0x2100001122334461:"), std::string::npos) << conf;
}

TEST_F(Binding, DeleteRemovesTargetItemsOnly) {
    writeFile(kConf,
              "qmx_queue_depth=32:qmxl0-tid-0-wwpn=0x1:qmxl0-wwpn=0x2100001122334450:"
              "qmxl1-tid-3-gt=2:qmxl9-foo=1:qmx0_queue_depth=8:");
    ASSERT_EQ(QMX_DeletePersistentBinding(), 0);
    EXPECT_EQ(readFile(kConf),
              "qmx_queue_depth=32:qmx0_queue_depth=8:qmxl0-wwpn=0x2100001122334450:qmxl9-foo=1:");
    // A file that cannot be read is not rewritten.
    makeUnreadable(kConf);
    EXPECT_TRUE(refused(QMX_DeletePersistentBinding(), -1, "QMX_DeletePersistentBinding ABEND"));
}

TEST_F(Binding, AutomaticMappingSwitch) {
    QMX_AUTOMAP on = 7;
    ASSERT_EQ(QMX_GetBindingAutoMapping(&on), 0);
    EXPECT_EQ(on, 1u);
    // Any value but 1 turns it off; the other options and lines stay.
    ASSERT_EQ(QMX_SetBindingAutoMapping(2), 0);
    EXPECT_EQ(readFile(kModprobe),
              "# qmxldd module options\noptions qmxldd qmx_automap=0 qmx_debug=0\n");
    ASSERT_EQ(QMX_GetBindingAutoMapping(&on), 0);
    EXPECT_EQ(on, 0u);
    ASSERT_EQ(QMX_SetBindingAutoMapping(1), 0);
    ASSERT_EQ(QMX_GetBindingAutoMapping(&on), 0);
    EXPECT_EQ(on, 1u);
    // Every option of a long line is carried over, and the lock is free
    // again afterwards.
    std::string opts;
    for (int i = 0; i < 11; ++i) opts += " o" + std::to_string(i) + "=" + std::to_string(i);
    writeFile(kModprobe, "options qmxldd qmx_automap=1" + opts + "\n");
    ASSERT_EQ(QMX_SetBindingAutoMapping(0), 0);
    EXPECT_EQ(readFile(kModprobe), "options qmxldd qmx_automap=0" + opts + "\n");
    EXPECT_EQ(QMX_ExeclusiveLockCheck(1), 1);
    // Without an options line the switch reads on.
    writeFile(kModprobe, "# none\nqmx_automap=0\n");
    ASSERT_EQ(QMX_GetBindingAutoMapping(&on), 0);
    EXPECT_EQ(on, 1u);

    EXPECT_TRUE(refused(QMX_GetBindingAutoMapping(nullptr), QMX_ERR_INVALID_ARG, "automap == NULL"));
    // The failure kept the lock: the next setter cannot take it.
    EXPECT_EQ(QMX_ExeclusiveLockCheck(1), 0);
}

TEST_F(Binding, ForceBindingThroughTheBiosTool) {
    QMX_WWN w = portWwn(0);
    EXPECT_TRUE(refused(QMX_SetForceBinding(w, 2), QMX_ERR_INVALID_ARG, "bind_flg is invalid value"));
    ASSERT_EQ(QMX_SetForceBinding(w, 1), 0);
    QMX_UINT8 flag = 0;
    ASSERT_EQ(QMX_GetForceBinding(w, &flag), 0);
    EXPECT_EQ(flag, 1);
    ASSERT_EQ(QMX_SetForceBinding(w, 0), 0);
    ASSERT_EQ(QMX_GetForceBinding(w, &flag), 0);
    EXPECT_EQ(flag, 2);  // the listing's "disabled"
    EXPECT_TRUE(refused(QMX_GetForceBinding(w, nullptr), -1, "bind_flg == NULL"));
    // An unknown port: refused, and the output preset to 0 all the same.
    EXPECT_TRUE(refused(QMX_GetForceBinding(wwnOf(0x1234), &flag), QMX_ERR_UNKNOWN_WWN));
    EXPECT_EQ(flag, 0);
}

}  // namespace
