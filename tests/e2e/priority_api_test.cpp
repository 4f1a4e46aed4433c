// LU priorities and path control in the virtual host: the listing of the
// configured groups and the edits of "/etc/qmxldd.conf".
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "vhost.h"

namespace {

class Priority : public VHostTest {};

TEST_F(Priority, ListingByGroupAdapterAndFileOrder) {
    writeFile(kConf,
              "qmxl0-tid-1-gt=2:qmxl0-tid-1-attribute=0x01:qmxl0-tid-1-priority0=0x8000000000000000:"
              "qmxl0-tid-1-priority3=0x01:"
              "qmxl1-tid-0-gt=0:qmxl1-tid-0-attribute=0x02:qmxl1-tid-0-priority1=0x0000000000000010:"
              "qmxl0-tid-4-gt=0:qmxl0-tid-4-attribute=0x00:"
              "qmxl0-tid-5-gt=0:qmxl0-tid-5-attribute=0x05:qmxl0-tid-6-gt=2:");
    int n = QMX_GetLUPriorityCnt();
    ASSERT_EQ(n, 3);  // attribute 5 and a group without attribute are not listed
    std::vector<QMX_LU_PRIORITY> list(std::size_t(n) + 1);
    std::memset(&list[std::size_t(n)], 0x5A, sizeof(QMX_LU_PRIORITY));
    ASSERT_EQ(QMX_GetLUPriority(list.data()), 0);
    struct Want {
        int group, adapter, target, attribute;
        const char *p1, *p2, *p3, *p4;
    } want[] = {
        {0, 0, 4, 0, "0000000000000000", "0000000000000000", "0000000000000000", "0000000000000000"},
        // The file's attribute 2 is listed as 3.
        {0, 1, 0, 3, "0000000000000000", "0000000000000010", "0000000000000000", "0000000000000000"},
        // Words the target has no item for are the previous target's.
        {2, 0, 1, 1, "8000000000000000", "0000000000000010", "0000000000000000", "0000000000000001"},
    };
    for (int i = 0; i < n; ++i) {
        SCOPED_TRACE(i);
        const QMX_LU_PRIORITY &e = list[std::size_t(i)];
        EXPECT_EQ(e.group, want[i].group);
        EXPECT_EQ(e.adapter, want[i].adapter);
        EXPECT_EQ(e.target, want[i].target);
        EXPECT_EQ(e.attribute, want[i].attribute);
        EXPECT_STREQ(e.priority1, want[i].p1);
        EXPECT_STREQ(e.priority2, want[i].p2);
        EXPECT_STREQ(e.priority3, want[i].p3);
        EXPECT_STREQ(e.priority4, want[i].p4);
    }
    // A file that has grown since the count is not written past the array,
    // however often it is filled again.
    writeFile(kConf, readFile(kConf) + "qmxl3-tid-3-gt=9:qmxl3-tid-3-attribute=0x00:");
    for (int fill = 0; fill < 2; ++fill) {
        ASSERT_EQ(QMX_GetLUPriority(list.data()), 0);
        EXPECT_EQ(list[std::size_t(n)].group, 0x5A5A5A5A) << fill;
    }

    EXPECT_TRUE(refused(QMX_GetLUPriority(nullptr), QMX_ERR_INVALID_ARG, "lu_priority == NULL"));
    removeFile(kConf);
    EXPECT_EQ(QMX_GetLUPriorityCnt(), -1);
    EXPECT_TRUE(traceHas("display_lu_priority is errend"));
}

TEST_F(Priority, SetLunPriorityEditsOneWord) {
    // The other target's gt and attribute values survive every rewrite.
    const std::string other = "qmxl0-tid-2-gt=12:qmxl0-tid-2-attribute=0x02:";
    writeFile(kConf, "qmx_queue_depth=8:" + other + "qmxl0-wwpn=0x2100001122334450:");
    ASSERT_EQ(QMX_SetLUPriority(0, 1, 5, 1), 0);
    ASSERT_EQ(QMX_SetLUPriority(0, 1, 300, 1), 0);  // folds onto bit 44 of word 3
    ASSERT_EQ(QMX_SetLUPriority(0, 1, 0, 1), 0);
    ASSERT_EQ(QMX_SetLUPriority(0, 1, 5, 0), 0);
    EXPECT_EQ(readFile(kConf), "qmx_queue_depth=8:" + other +
                                   "qmxl0-tid-1-priority0=0x8000000000000000:"
                                   "qmxl0-tid-1-priority3=0x0000000000080000:"
                                   "qmxl0-wwpn=0x2100001122334450:");
    std::string before = readFile(kConf);
    struct {
        int a, t, lun, prio;
        const char *msg;
    } bad[] = {{256, 0, 0, 1, "adap_no is invalid value"},
               {0, -1, 0, 1, "target_no is invalid value"},
               {0, 0, 2048, 1, "lun is invalid value"},
               {0, 0, -1, 1, "lun is invalid value"},
               {0, 0, 0, 2, "priority is invalid value"}};
    for (const auto &b : bad) {
        EXPECT_EQ(QMX_SetLUPriority(b.a, b.t, b.lun, b.prio), 1) << b.msg;
        EXPECT_EQ(QMX_LastErrorCode(), QMX_ERR_INVALID_ARG);
        EXPECT_TRUE(traceHas(b.msg));
    }
    EXPECT_EQ(readFile(kConf), before);
}

TEST_F(Priority, ReleasePathControlSplitsTheGroup) {
    writeFile(kConf,
              "qmxl0-tid-0-gt=0:qmxl0-tid-0-attribute=0x01:"
              "qmxl0-tid-1-gt=2:qmxl0-tid-1-attribute=0x01:qmxl0-tid-1-priority0=0x8000000000000000:"
              "qmxl0-tid-1-priority1=0x01:"
              "qmxl1-tid-1-gt=2:qmxl1-tid-1-attribute=0x00:qmxl1-tid-1-priority0=0x01:"
              "qmxl0-tid-2-gt=5:qmxl0-tid-2-attribute=0x00:qmxl0-tid-2-priority0=0x02:");
    ASSERT_EQ(QMX_ReleasePathControl(2), 0);
    EXPECT_EQ(readFile(kConf),
              "qmxl0-tid-0-gt=0:qmxl0-tid-0-attribute=0x01:"
              "qmxl0-tid-1-gt=1:qmxl0-tid-1-attribute=0x03:"
              "qmxl1-tid-1-gt=2:qmxl1-tid-1-attribute=0x03:"
              "qmxl0-tid-2-gt=3:qmxl0-tid-2-attribute=0x00:qmxl0-tid-2-priority0=0x0000000000000002:");
    // A group no target has: the call succeeds, the failure shows in the trace.
    clearTrace();
    EXPECT_EQ(QMX_ReleasePathControl(7), 0);
    EXPECT_TRUE(traceHas("!n"));
    EXPECT_TRUE(traceHas("release_multipath_by_group ABEND"));
    EXPECT_TRUE(refused(QMX_ReleasePathControl(-1), QMX_ERR_INVALID_ARG, "group < 0"));
}

TEST_F(Priority, ChangePathAttributeMovesTheMark) {
    const std::string tail = "qmxl0-tid-3-gt=2:qmxl0-tid-3-attribute=0x00:";
    writeFile(kConf,
              "qmxl0-tid-0-gt=1:qmxl0-tid-0-attribute=0x01:qmxl1-tid-0-gt=1:"
              "qmxl1-tid-0-attribute=0x00:qmxl2-tid-0-gt=1:" +
                  tail + "qmxl0-wwpn=0x2100001122334450:");
    ASSERT_EQ(QMX_ChangePathAttribute(0, 0), 0);
    // The path without an attribute item gets one; the adapter item is
    // written once although the file is parsed twice.
    const std::string after =
        "qmxl0-tid-0-gt=1:qmxl0-tid-0-attribute=0x00:qmxl1-tid-0-gt=1:"
        "qmxl1-tid-0-attribute=0x01:qmxl2-tid-0-gt=1:" +
        tail + "qmxl2-tid-0-attribute=0x01:qmxl0-wwpn=0x2100001122334450:";
    EXPECT_EQ(readFile(kConf), after);
    // Attribute 0: the file is rewritten unchanged.
    ASSERT_EQ(QMX_ChangePathAttribute(0, 3), 0);
    EXPECT_EQ(readFile(kConf), after);

    struct {
        int a, t;
        const char *msg;
    } bad[] = {{-1, 0, "adapter < 0"}, {0, -1, "target < 0"}, {9, 9, "Unknown number"}};
    for (const auto &b : bad) {
        EXPECT_EQ(QMX_ChangePathAttribute(b.a, b.t), 1) << b.msg;
        EXPECT_EQ(QMX_LastErrorCode(), QMX_ERR_INVALID_ARG);
        EXPECT_TRUE(traceHas(b.msg));
    }
    EXPECT_EQ(readFile(kConf), after);
}

TEST_F(Priority, FileAtTheParseLimitIsListedAndNeverRewritten) {
    // 16384 targets of 8 items: 131072 binding items, about 5 MB.
    std::string text;
    char buf[96];
    for (int a = 0; a < 256; ++a)
        for (int t = 0; t < 64; ++t) {
            const char *kinds[] = {"wwpn=0x51", "wwnn=0x50", "attribute=0x00", "priority0=0x01",
                                   "priority1=0x02", "priority2=0x03", "priority3=0x04"};
            std::snprintf(buf, sizeof buf, "qmxl%d-tid-%d-gt=%d:", a, t, t);
            text += buf;
            for (const char *k : kinds) {
                std::snprintf(buf, sizeof buf, "qmxl%d-tid-%d-%s:", a, t, k);
                text += buf;
            }
        }
    writeFile(kConf, text);
    EXPECT_EQ(QMX_GetLUPriorityCnt(), 16384);
    // A new item cannot be added to a file this far over the writer's bound.
    ASSERT_EQ(QMX_SetLUPriority(0, 200, 1, 1), 0);
    EXPECT_TRUE(traceHas("qmxldd.conf filesize over 100012 written."));
    EXPECT_TRUE(traceHas("QMX_WriteBindInfo ABEND"));
    EXPECT_EQ(QMX_LastErrorCode(), QMX_ERR_SIZE_LIMIT);
    EXPECT_EQ(readFile(kConf), text);
}

}  // namespace
