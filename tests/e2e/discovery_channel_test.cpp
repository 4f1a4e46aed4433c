// Adapter discovery and the driver channel of the shared library, against the
// simulated driver of the virtual host.
#include <arpa/inet.h>

#include <cerrno>
#include <cstring>

#include "qmxldd_ioctl.h"
#include "vhost.h"

namespace {

class Discovery : public VHostTest {};

TEST_F(Discovery, PortsGetInstanceNumbersInDeviceOrderAndAnUnknownWwnCode4) {
    for (int devno = 0; devno < 4; ++devno) EXPECT_EQ(QMX_InitRoutine(portWwn(devno)), devno) << devno;
    int r = withTrace([] { return QMX_InitRoutine(VHostTest::wwnOf(0x2100000000009999ull)); });
    EXPECT_EQ(r, -1);
    EXPECT_EQ(QMX_LastErrorCode(), 4);
    EXPECT_TRUE(traceHas("QMX_InitRoutine ABEND"));
}

TEST_F(Discovery, GapsInDeviceNumbersAreClosed) {
    QMX_WWN w0 = portWwn(0), w3 = portWwn(3), w1 = portWwn(1);
    removePort(1);
    removePort(2);
    EXPECT_EQ(QMX_InitRoutine(w0), 0);
    EXPECT_EQ(QMX_InitRoutine(w3), 1);
    EXPECT_EQ(QMX_InitRoutine(w1), -1);
    EXPECT_EQ(QMX_LastErrorCode(), 4);
}

TEST_F(Discovery, PortWhosePciIdCannotBeReadIsLeftOut) {
    QMX_WWN w1 = portWwn(1), w2 = portWwn(2);
    setPortField(1, "pci_id_readable", false);
    EXPECT_EQ(QMX_InitRoutine(w1), -1);
    EXPECT_EQ(QMX_LastErrorCode(), 4);
    EXPECT_EQ(QMX_InitRoutine(w2), 1);  // the next port takes its place
    // Its information request was answered; the identifier read was retried.
    EXPECT_EQ(driverRequests("IOCTL_QMX_SC_PRINFO", 1), 1);
    EXPECT_EQ(driverRequests("IOCTL_QMX_DIAG0", 1, QMX_DG_RDFIXPCI), 7);
}

TEST_F(Discovery, PortWithoutInformationIsLeftOut) {
    QMX_WWN w0 = portWwn(0), w1 = portWwn(1);
    failRequest("IOCTL_QMX_SC_PRINFO", 0, EIO);
    EXPECT_EQ(QMX_InitRoutine(w0), -1);
    EXPECT_EQ(QMX_InitRoutine(w1), 0);
    EXPECT_EQ(driverRequests("IOCTL_QMX_DIAG0", 0), 0);  // no identifier read for it
}

TEST_F(Discovery, UnsupportedBoardGivesCode6) {
    QMX_WWN w2 = portWwn(2), w3 = portWwn(3);
    setPortField(2, "device", "0x00F1");  // vendor 0x1E5A stays
    int r = withTrace([&] { return QMX_InitRoutine(w2); });
    EXPECT_EQ(r, -1);
    EXPECT_EQ(QMX_LastErrorCode(), 6);
    EXPECT_TRUE(traceHas("Unsupported HBA Board"));
    EXPECT_EQ(QMX_InitRoutine(w3), 3);  // the board is discovered, only refused
}

class Channel : public Discovery {};

TEST_F(Channel, DiagRequestIsTriedSevenTimes) {
    failRequest("IOCTL_QMX_DIAG0", 0, EIO, -1, QMX_DG_RDFIXPCI);
    char dev[] = "/dev/qmxldd0";
    unsigned int word = withTrace([&] { return QMX_getQmxDeviceId(dev); });
    EXPECT_EQ(word, 0xFFFFFFFFu);
    EXPECT_EQ(traceCount("ioctl retry"), 6);
    EXPECT_TRUE(traceHas("ioctl_diag ABEND"));
    EXPECT_TRUE(traceHas("QMX_getQmxDeviceId ABEND"));
    EXPECT_EQ(driverRequests("IOCTL_QMX_DIAG0", 0, QMX_DG_RDFIXPCI), 7);
}

TEST_F(Channel, DiagRequestSucceedsAfterRetries) {
    failRequest("IOCTL_QMX_DIAG0", 1, EBUSY, 2, QMX_DG_RDFIXPCI);
    char dev[] = "/dev/qmxldd1";
    unsigned int word = withTrace([&] { return QMX_getQmxDeviceId(dev); });
    EXPECT_EQ(ntohl(word), 0x25321E5Au);
    EXPECT_EQ(traceCount("ioctl retry"), 2);
    EXPECT_FALSE(traceHas("ioctl_diag ABEND"));
    EXPECT_EQ(driverRequests("IOCTL_QMX_DIAG0", 1, QMX_DG_RDFIXPCI), 3);
}

TEST_F(Channel, WwnInfoBusyGivesMinus2) {
    addFault({{"request", "IOCTL_QMX_WWN_INFO"}, {"port", 0}, {"busy", true}, {"times", 1}});
    addFault({{"request", "IOCTL_QMX_WWN_INFO"}, {"port", 1}, {"resp_code", 5}, {"times", 1}});
    char dev0[] = "/dev/qmxldd0", dev1[] = "/dev/qmxldd1";
    qmx_ioctl_wwn w;
    std::memset(&w, 0, sizeof w);
    EXPECT_EQ(withTrace([&] { return QMX_GetWwnInfo(dev0, &w); }), -2);
    EXPECT_TRUE(traceHas("resp_code is busy"));
    EXPECT_EQ(w.sub_code, 1);
    std::memset(&w, 0, sizeof w);
    EXPECT_EQ(withTrace([&] { return QMX_GetWwnInfo(dev1, &w); }), -1);
    EXPECT_TRUE(traceHas("resp_code is not busy"));
    std::memset(&w, 0, sizeof w);
    EXPECT_EQ(withTrace([&] { return QMX_GetWwnInfo(dev0, &w); }), 0);  // the driver is free again
    EXPECT_TRUE(traceHas("QMX_GetWwnInfo END"));
}

// A failed request gives code 7; a device gone since discovery, code 1.
TEST_F(Channel, CallDriverFailures) {
    QMX_WWN w0 = portWwn(0), w1 = portWwn(1);
    ASSERT_EQ(QMX_InitRoutine(w1), 1);
    failRequest("IOCTL_QMX_SC_PRINFO", 1, EIO, 1);
    qmx_ioctl_proc_info info;
    int r = withTrace([&] { return QMX_CallDriver(w1, 1, int(IOCTL_QMX_SC_PRINFO), &info); });
    EXPECT_EQ(r, 1);
    EXPECT_EQ(QMX_LastErrorCode(), 7);
    EXPECT_TRUE(traceHas("QMX_ExecIoctl ABEND"));
    EXPECT_TRUE(traceHas("QMX_CallDriver ABEND"));
    ASSERT_EQ(QMX_InitRoutine(w0), 0);  // discovery saw the device
    std::memset(&info, 0, sizeof info);
    ASSERT_EQ(QMX_CallDriver(w0, 0, int(IOCTL_QMX_SC_PRINFO), &info), 0);
    EXPECT_EQ(info.ww_name, 0x2100001122334450ull);
    removeDeviceFile(0);
    EXPECT_TRUE(refused(QMX_CallDriver(w0, 0, int(IOCTL_QMX_SC_PRINFO), &info), 1));
}

TEST_F(Channel, ReadProcInfoCopiesTheWholeRecord) {
    setPrinfoField(3, "queue_depth", 64);
    char dev[] = "/dev/qmxldd3";
    qmx_ioctl_proc_info info;
    std::memset(&info, 0xCC, sizeof info);
    ASSERT_EQ(withTrace([&] { return QMX_read_proc_info(dev, &info); }), 0);
    EXPECT_EQ(info.queue_depth, 64u);
    EXPECT_EQ(info.ww_name, 0x2100001122334461ull);
    EXPECT_EQ(info.rsv0[0], 0);
    char missing[] = "/dev/qmxldd9";
    EXPECT_EQ(withTrace([&] { return QMX_read_proc_info(missing, &info); }), -1);
    EXPECT_TRUE(traceHas("QMX_read_proc_info ABEND"));
}

TEST_F(Channel, PortAttributesListTheTargets) {
    char dev[] = "/dev/qmxldd2";
    qmx_ioctl_port_attr attr;
    std::memset(&attr, 0, sizeof attr);
    ASSERT_EQ(withTrace([&] { return QMX_GetPortAttr(dev, &attr); }), 0);
    EXPECT_EQ(attr.tgt_num, 2u);
    EXPECT_EQ(attr.tgt_wwpn[1], 0x5000000000000b02ull);
    EXPECT_EQ(driverRequests("IOCTL_QMX_PORT_ATTR", 2, QMX_DIAG_SUB_TGTLIST), 1);
}

}  // namespace
