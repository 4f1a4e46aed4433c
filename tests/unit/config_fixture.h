// Shared fixture of the configuration store tests: a private file tree with
// the driver configuration file, the library file, a module tree with a
// configuration module image and the module options files, plus the API
// trace of the test.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "conf_layout.h"
#include "config/config.h"
#include "frame/frame.h"
#include "frame_test_util.h"

namespace cfgtest {

using frametest::slurp;

inline void spit(const std::string &path, const std::string &text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
}

inline bool exists(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

inline std::string release() {
    struct utsname un;
    uname(&un);
    return un.release;
}

using conflayout::kPortOrder;
using conflayout::tableArea;

// Offsets of the entries of a standard area.
constexpr std::size_t kEntryAt[6] = {0, 96, 192, 4368, 8544, 208612};
constexpr std::size_t kConfigText = 8544 + 68;

// Retry counts of earlier writes in this process stay in their table by
// design; each test starts from an empty one.
inline void clearRetryTable() { std::memset(retry_cnt, 0, sizeof retry_cnt); }

class ConfTree : public ::testing::Test {
protected:
    void SetUp() override {
        clearRetryTable();
        char tmpl[] = "/tmp/qmxcfg-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        root_ = tmpl;
        for (const char *d : {"/etc", "/tmp", "/lib", "/lib/modules"}) mkdir((root_ + d).c_str(), 0755);
        modDir_ = root_ + "/lib/modules/" + release();
        mkdir(modDir_.c_str(), 0755);
        conf_ = root_ + "/etc/qmxldd.conf";
        lib_ = root_ + "/etc/qmxlib.conf";
        modules_ = root_ + "/lib/modules";
        modprobe_ = root_ + "/etc/qmxldd_param.conf";
        tmp1_ = root_ + "/tmp/conf_modules1.hba";
        tmp2_ = root_ + "/tmp/conf_modules2.hba";
        store_ = {conf_.c_str(), lib_.c_str(), modules_.c_str(), modprobe_.c_str(), tmp1_.c_str(),
                  tmp2_.c_str()};
        // A module image inside a larger file, named by modules.dep.
        imagePath_ = modDir_ + "/extra/qmxldd_conf.ko";
        mkdir((modDir_ + "/extra").c_str(), 0755);
        spit(imagePath_, imageHead() + tableArea() + imageTail());
        spit(modDir_ + "/modules.dep",
             "kernel/drivers/scsi/other.ko:\nextra/qmxldd_conf.ko: kernel/drivers/scsi/qmxldd.ko\n");

        traceName_ = std::string("cfgtrace-") + std::to_string(getpid()) + ".txt";
        tracePath_ = frametest::tracePath(traceName_);
        QMX_CloseApiTraceFile();
        ASSERT_EQ(QMX_ChangeTraceLogFile(const_cast<char *>(traceName_.c_str())), 0);
        ASSERT_NE(QMX_OpenApiTraceFile(), nullptr);
        QMX_G_ERROR_CD = 0;
    }
    void TearDown() override {
        QMX_CloseApiTraceFile();
        unlink(tracePath_.c_str());
        QMX_ChangeTraceLogFile(const_cast<char *>("qmxlibTrace.txt"));
        std::string cmd = "rm -rf '" + root_ + "'";
        if (std::system(cmd.c_str()) != 0) ADD_FAILURE() << "cleanup";
    }

    static std::string imageHead() { return std::string(1000, 'H'); }
    static std::string imageTail() { return std::string(777, 'T'); }

    // The trace text lines written so far (stamp and pid removed).
    std::vector<std::string> traceLines() {
        QMX_CloseApiTraceFile();
        std::vector<std::string> out = frametest::texts(tracePath_);
        QMX_OpenApiTraceFile();
        std::erase(out, std::string("EndLog"));
        return out;
    }
    bool traced(const std::string &text) { return frametest::contains(traceLines(), text); }
    // The index of the first line equal to `text` at or after `from`, or -1.
    int traceIndex(const std::string &text, int from = 0) {
        auto lines = traceLines();
        for (std::size_t i = std::size_t(from); i < lines.size(); ++i)
            if (lines[i] == text) return int(i);
        return -1;
    }

    std::string imageArea() {
        std::string img = slurp(imagePath_);
        if (img.size() < imageHead().size() + std::size_t(kTableAreaSize)) return {};
        return img.substr(imageHead().size(), std::size_t(kTableAreaSize));
    }
    std::string imageConfigText() {
        std::string a = imageArea();
        if (a.empty()) return {};
        return std::string(a.c_str() + kConfigText);
    }

    std::string root_, modDir_, conf_, lib_, modules_, modprobe_, tmp1_, tmp2_, imagePath_;
    std::string traceName_, tracePath_;
    qmx::ConfStore store_{};
};

// A key list built from "key=value" texts (an entry without "=" is an
// empty slot).
inline std::vector<util_para> items(const std::vector<std::string> &kv) {
    std::vector<util_para> v(kv.size());  // value-initialised: all zero
    for (std::size_t i = 0; i < kv.size(); ++i) {
        auto eq = kv[i].find('=');
        if (eq != std::string::npos) {
            qmx::copyText(v[i].keyword, kv[i].substr(0, eq));
            qmx::copyText(v[i].value, kv[i].substr(eq + 1));
        }
    }
    return v;
}
inline std::vector<util_para> items(std::initializer_list<std::string> kv) {
    return items(std::vector<std::string>(kv));
}

inline std::string build(std::vector<util_para> keys, std::vector<util_para> add = {},
                         int mode = 0) {
    std::string out;
    qmx::buildConfText(keys.data(), int(keys.size()), add.data(), int(add.size()), mode, out);
    return out;
}

}  // namespace cfgtest
