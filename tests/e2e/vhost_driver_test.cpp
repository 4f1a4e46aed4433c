// The virtual host itself: the simulated driver's request checks and answers,
// scripted faults, state shared between processes, host files.  The tools
// (firmware, diagnostics, BIOS), the module image and the disk links are
// checked through the library's calls that use them, and so are the
// isolation, path state and multipath parameter requests.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "qmxldd_ioctl.h"
#include "vhost.h"

namespace {

// Request numbers by ordinal and argument size, as the driver defines them.
constexpr unsigned long req(unsigned ordinal, unsigned size) {
    return _IOC(_IOC_READ | _IOC_WRITE, 'F', ordinal, size);
}

class Device {
public:
    explicit Device(int devno) {
        std::string path = "/dev/qmxldd" + std::to_string(devno);
        fd_ = ::open(path.c_str(), O_RDONLY);
    }
    ~Device() {
        if (fd_ >= 0) ::close(fd_);
    }
    int fd() const { return fd_; }
    // ioctl result and errno.
    int call(unsigned long request, void *arg, int *err = nullptr) const {
        errno = 0;
        int rc = ::ioctl(fd_, request, arg);
        if (err) *err = errno;
        return rc;
    }

private:
    int fd_ = -1;
};

int diag(const Device &d, uint8_t sub, uint32_t offset, uint32_t length, void *buf, int *err = nullptr) {
    diag_ioctl r;
    std::memset(&r, 0, sizeof r);
    r.sub_cmd = sub;
    r.uni.offset = offset;
    r.length = length;
    r.addr = reinterpret_cast<uintptr_t>(buf);
    return d.call(IOCTL_QMX_DIAG0, &r, err);
}

class VHostDriver : public VHostTest {};

TEST_F(VHostDriver, PortInformationFollowsTheScenarioAndFieldOverrides) {
    setPrinfoField(1, "queue_depth", 77);
    setPrinfoField(1, "model_name", "QX9999");
    setPrinfoField(1, "mlpf_mode", -1);
    Device d(2), changed(1);
    ASSERT_GE(d.fd(), 0);
    qmx_ioctl_proc_info info;
    std::memset(&info, 0xAB, sizeof info);
    ASSERT_EQ(d.call(IOCTL_QMX_SC_PRINFO, &info), 0);
    EXPECT_EQ(info.ww_name, 0x2100001122334460ull);
    EXPECT_EQ(info.node_name, 0x2000001122334460ull);
    EXPECT_EQ(info.host_no, 4);
    EXPECT_EQ(info.vender_id, 0x1E5A);
    EXPECT_EQ(info.device_id, 0x2532);
    EXPECT_EQ(std::vector<uint8_t>(info.bus_dev_func, info.bus_dev_func + 3), (std::vector<uint8_t>{4, 0, 0}));
    EXPECT_EQ(info.rsv5[0], 0);  // the whole record is the driver's: reserved bytes zero
    EXPECT_EQ(driverRequests("IOCTL_QMX_SC_PRINFO", 2), 1);
    ASSERT_EQ(changed.call(IOCTL_QMX_SC_PRINFO, &info), 0);
    EXPECT_EQ(info.queue_depth, 77u);
    EXPECT_STREQ(reinterpret_cast<const char *>(info.model_name), "QX9999");
    EXPECT_EQ(int8_t(info.mlpf_mode), -1);
}

TEST_F(VHostDriver, WrongSizeOrUnknownRequestIsRefused) {
    Device d(0);
    std::vector<uint8_t> buf(4096, 0);
    int err = 0;
    EXPECT_EQ(d.call(req(0x0D, 1000), buf.data(), &err), -1);
    EXPECT_EQ(err, EINVAL);
    EXPECT_EQ(d.call(req(0x42, 16), buf.data(), &err), -1);  // no such request
    EXPECT_EQ(err, EINVAL);
    EXPECT_EQ(d.call(_IOR('F', 0x0D, char[1024]), buf.data(), &err), -1);  // wrong direction
    EXPECT_EQ(err, EINVAL);
    int refused = 0;
    for (const std::string &l : driverLog()) refused += l.find(" refused ") != std::string::npos ? 1 : 0;
    EXPECT_EQ(refused, 3);
    // The correct request on the same descriptor is answered.
    EXPECT_EQ(d.call(req(0x0D, 1024), buf.data(), &err), 0);
}

TEST_F(VHostDriver, OnlyDriverDescriptorsAreLoggedAndARemovedLogStartsAfresh) {
    int fd = ::open("/dev/null", O_RDONLY);
    ASSERT_GE(fd, 0);
    int n = 0;
    errno = 0;
    EXPECT_EQ(::ioctl(fd, IOCTL_QMX_SC_PRINFO, &n), -1);
    EXPECT_EQ(errno, ENOTTY);  // the character device's own answer
    ::close(fd);
    EXPECT_TRUE(driverLog().empty() || driverLog()[0].empty());
    Device d(0);
    qmx_ioctl_proc_info info;
    ASSERT_EQ(d.call(IOCTL_QMX_SC_PRINFO, &info), 0);
    ASSERT_TRUE(removeFile(stateDir() + "/driver.log"));
    ASSERT_EQ(d.call(IOCTL_QMX_SC_PRINFO, &info), 0);
    std::vector<std::string> log = driverLog();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_NE(log[0].find(" req=IOCTL_QMX_SC_PRINFO nr=0xC400460D size=1024 "), std::string::npos);
    EXPECT_NE(log[0].find(" result=ok"), std::string::npos);
}

TEST_F(VHostDriver, EmbeddedAddressAndLengthAreChecked) {
    Device d(0);
    int err = 0;
    EXPECT_EQ(diag(d, QMX_DG_RDFIXPCI, 0, 4, reinterpret_cast<void *>(uintptr_t(16)), &err), -1);
    EXPECT_EQ(err, EFAULT);
    uint8_t small[8];
    EXPECT_EQ(diag(d, QMX_DG_RDHG, 1020, 8, small, &err), -1);  // past the option area
    EXPECT_EQ(err, EINVAL);
    // The PCI ID word and its scripted read failure are checked through the
    // library: Channel.DiagRequestSucceedsAfterRetries, Discovery.PortWhosePciIdCannotBeReadIsLeftOut.
}

TEST_F(VHostDriver, EfiOptionAreaKeepsWritesAcrossProcesses) {
    {
        Device d(3);
        uint8_t word[4] = {9, 8, 7, 6};
        ASSERT_EQ(diag(d, QMX_DG_WRHG, 516, 4, word), 0);
        uint8_t store[4] = {0x10, 0x01, 0x00, 0x00};
        ASSERT_EQ(diag(d, QMX_DG_WRHG, 12, 4, store), 0);
    }
    EXPECT_EQ(portCounter(3, "efi_store"), 1);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {  // another process of the host sees the same area
        Device d(3);
        uint8_t b = 0;
        int rc = diag(d, QMX_DG_RDHG, 518, 1, &b);
        _exit(rc == 0 && b == 7 ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    // Other ports keep their own area.
    Device other(2);
    uint8_t b = 0;
    ASSERT_EQ(diag(other, QMX_DG_RDHG, 518, 1, &b), 0);
    EXPECT_EQ(b, 3);
}

TEST_F(VHostDriver, ScriptedFaultsByPortSubCommandAndNumber) {
    failRequest("IOCTL_QMX_SC_PRINFO", 1, EAGAIN, 2);
    addFault({{"request", "0xC0904609"}, {"port", 0}, {"sub", QMX_DG_TGTSCAN}, {"err_code", 2}, {"times", -1}});
    Device d(1), other(0);
    qmx_ioctl_proc_info info;
    int err = 0;
    EXPECT_EQ(other.call(IOCTL_QMX_SC_PRINFO, &info), 0);  // another port is not affected
    EXPECT_EQ(d.call(IOCTL_QMX_SC_PRINFO, &info, &err), -1);
    EXPECT_EQ(err, EAGAIN);
    EXPECT_EQ(d.call(IOCTL_QMX_SC_PRINFO, &info, &err), -1);
    EXPECT_EQ(d.call(IOCTL_QMX_SC_PRINFO, &info, &err), 0);  // after two failures
    diag_ioctl r;
    std::memset(&r, 0, sizeof r);
    r.sub_cmd = QMX_DG_TGTSCAN;
    ASSERT_EQ(other.call(IOCTL_QMX_DIAG0, &r), 0);
    EXPECT_EQ(r.uni.raw[0], 2);  // scripted scan outcome
    uint32_t word = 0;
    EXPECT_EQ(diag(other, QMX_DG_RDFIXPCI, 0, 4, &word), 0);  // other sub-commands answer normally
    // Busy and response-code faults: discovery_channel_test (Channel.WwnInfoBusyGivesMinus2).
}

// Maps read in the layout the multipath requests use.
struct TargetMap {
    uint32_t entry_count, target_count;
    struct Entry {
        uint64_t nodename, portname;
        uint8_t flags, attribute, groupid, targetid, pathid, instance, rsv[2];
    } e[256];
};
static_assert(sizeof(TargetMap) == 8 + 256 * 24);

TEST_F(VHostDriver, TargetMapsStayWithinTheCallersCapacity) {
    Device d(0);
    // The PORT_ATTR target list: Channel.PortAttributesListTheTargets.
    auto map = std::make_unique<TargetMap>();
    std::memset(map.get(), 0xEE, sizeof *map);
    map->entry_count = 1;
    map->target_count = 1;
    ASSERT_EQ(d.call(req(0x12, 32), map.get()), 0);
    EXPECT_EQ(map->target_count, 1u);
    EXPECT_EQ(map->e[1].nodename, 0xEEEEEEEEEEEEEEEEull);  // nothing written past the capacity
    // The logical target map alike.
    std::vector<uint8_t> buf(QMX_MP_LGTARGET_SIZE(4), 0xEE);
    auto *lg = reinterpret_cast<qmx_mp_lgtarget *>(buf.data());
    lg->header.entry_count = 1;
    ASSERT_EQ(d.call(IOCTL_QMX_MP_LGTGTMAP, lg), 0);
    EXPECT_EQ(lg->header.lgtarget_count, 1u);
    EXPECT_EQ(lg->entry[0].path_cnt, 1);
    EXPECT_EQ(buf[QMX_MP_LGTARGET_SIZE(1)], 0xEE);  // nothing written past the capacity
}

TEST_F(VHostDriver, MaximumTargetAndLuMapsAreGeneratedOnDemand) {
    setPortField(0, "gen_targets", 256);
    setPortField(0, "gen_luns", 2048);
    Device d(0);
    auto map = std::make_unique<TargetMap>();
    map->entry_count = map->target_count = 256;
    ASSERT_EQ(d.call(req(0x12, 32), map.get()), 0);
    ASSERT_EQ(map->target_count, 256u);
    EXPECT_EQ(map->e[255].targetid, 255);
    std::vector<uint8_t> lu(32 + 2048 * 160, 0);
    std::memcpy(&lu[0], &map->e[7].nodename, 8);
    std::memcpy(&lu[8], &map->e[7].portname, 8);
    ASSERT_EQ(d.call(req(0x13, 192), lu.data()), 0);
    uint32_t count;
    std::memcpy(&count, &lu[24], 4);
    EXPECT_EQ(count, 2048u);
    uint32_t lastLun;
    std::memcpy(&lastLun, &lu[32 + 2047 * 160 + 24], 4);
    EXPECT_EQ(lastLun, 2047u);
    // The state holds the generator, not the maps.
    EXPECT_LT(readFile(stateDir() + "/state.json").size(), 64u * 1024);
}

TEST_F(VHostDriver, ProcEntriesAreRedirected) {
    std::string text;
    FILE *fp = std::fopen("/proc/scsi/vqmxldd/4", "r");
    ASSERT_NE(fp, nullptr);
    char line[512];
    while (std::fgets(line, sizeof line, fp)) text += line;
    std::fclose(fp);
    EXPECT_NE(text.find("  Instance_number           = 2\n"), std::string::npos);
    EXPECT_EQ(std::fopen("/proc/scsi/vqmxldd/99", "r"), nullptr);
}

TEST_F(VHostDriver, SystemLogIsCaughtWithTheTextAsItStands) {
    char msg[] = "vhost syslog probe 100%% %d %x";  // per-cent signs are plain characters
    ASSERT_EQ(QMX_WriteSyslog(2, msg), 0);
    std::vector<std::string> lines = syslogLines(1);
    ASSERT_FALSE(lines.empty());
    EXPECT_NE(lines.back().find("qmxlib.so"), std::string::npos);
    EXPECT_NE(lines.back().find("vhost syslog probe 100%% %d %x"), std::string::npos) << lines.back();
}

TEST_F(VHostDriver, RemovedPortVanishesAndOfflinePortAnswersNothing) {
    removePort(1);
    EXPECT_FALSE(fileExists("/dev/qmxldd1"));
    EXPECT_FALSE(fileExists(stateDir() + "/proc/scsi/vqmxldd/3"));
    setPortField(2, "online", false);
    Device d(2);
    ASSERT_GE(d.fd(), 0);  // the device file is still there
    qmx_ioctl_proc_info info;
    int err = 0;
    EXPECT_EQ(d.call(IOCTL_QMX_SC_PRINFO, &info, &err), -1);
    EXPECT_EQ(err, ENXIO);
}

TEST_F(VHostDriver, UnreadableFilesAreRefusedEvenToRoot) {
    ASSERT_TRUE(fileExists("/etc/qmxlib.conf"));
    makeUnreadable("/etc/qmxlib.conf");
    errno = 0;
    EXPECT_EQ(std::fopen("/etc/qmxlib.conf", "r"), nullptr);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(::open("/etc/qmxlib.conf", O_RDONLY), -1);
    struct stat st;
    EXPECT_EQ(stat("/etc/qmxlib.conf", &st), 0);  // it is there
    FILE *fp = std::fopen("/etc/qmxldd.conf", "r");  // other files open as before
    ASSERT_NE(fp, nullptr);
    std::fclose(fp);
}

TEST_F(VHostDriver, ReportLunsTellsTheFullCountButFillsOnlyTheBuffer) {
    editState([](qmxsim::json &s) { portOf(s, 0)["targets"][0]["report_luns"] = 3000; });
    Device d(0);
    std::vector<uint8_t> data(QMX_PASSTHRU_DATA_LEN + 64, 0xEE);
    qmx_ioctl_scsi_passthru pt;
    std::memset(&pt, 0, sizeof pt);
    pt.flags = QMX_PASSTHRU_FLAGS;
    pt.data_len = QMX_PASSTHRU_DATA_LEN;
    pt.data_addr = reinterpret_cast<uintptr_t>(data.data());
    pt.port_wwn = 0x5000000000000a01ull;
    pt.cdb_len = QMX_PASSTHRU_CDB_LEN;
    pt.cdb[0] = QMX_SCSI_REPORT_LUNS;
    ASSERT_EQ(d.call(IOCTL_QMX_SCSI_PASSTHRU, &pt), 0);
    uint32_t listLen = uint32_t(data[0]) << 24 | uint32_t(data[1]) << 16 | uint32_t(data[2]) << 8 | data[3];
    EXPECT_EQ(listLen, 3000u * 8);
    EXPECT_EQ(data[8 + 8 * 3], 0);  // LUN 3 in the first two bytes of its entry
    EXPECT_EQ(data[9 + 8 * 3], 3);
    EXPECT_EQ(data[QMX_PASSTHRU_DATA_LEN], 0xEE);  // nothing past the buffer
    pt.port_wwn = 0x5000000000000fffull;  // no such target
    int err = 0;
    EXPECT_EQ(d.call(IOCTL_QMX_SCSI_PASSTHRU, &pt, &err), -1);
    EXPECT_EQ(err, EIO);
}

TEST_F(VHostDriver, LogicalPathListDescribesEveryTarget) {
    Device d(2);
    std::vector<uint8_t> buf(QMX_MP_LGPATH1_SIZE(QMX_MP_LGPATH1_MAX), 0);
    auto *list = reinterpret_cast<qmx_mp_lgpath_info1 *>(buf.data());
    list->header.entry_count = QMX_MP_LGPATH1_MAX;
    ASSERT_EQ(d.call(IOCTL_QMX_MP_LGPATH1, buf.data()), 0);
    ASSERT_EQ(list->header.lgpath_info1_count, 6u * 3);  // six target paths, three entries each
    const auto *e = reinterpret_cast<const mp_lgpath_info1_entry *>(buf.data() + sizeof(mp_lgpath_info1_header));
    EXPECT_EQ(e[0].type, QMX_LGPATH_TYPE_TARGET);
    EXPECT_EQ(e[1].type, QMX_LGPATH_TYPE_NODE);
    EXPECT_EQ(e[1].data, 0x5000000000000a00ull);
    EXPECT_EQ(e[2].type, QMX_LGPATH_TYPE_PORT);
    EXPECT_EQ(e[2].data, 0x5000000000000a01ull);
    EXPECT_EQ(e[3].group, 1);  // port 0's second target
    EXPECT_EQ(e[17].instance, 3);
}

}  // namespace
