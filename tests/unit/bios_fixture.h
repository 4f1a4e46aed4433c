// Shared fixture of the BIOS tool runner and EFI option tests: the state
// directory of the virtual host, and port index 0 pointed at the host's first
// simulated port for the length of a test.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "bios/bios.h"
#include "frame/frame.h"

namespace biostest {

inline std::string stateDir() {
    const char *s = std::getenv("QMXSIM_STATE");
    return s != nullptr ? s : "";
}

inline std::string stateFile(const std::string &rel) {
    std::string d = stateDir();
    return d.empty() ? d : d + "/" + rel;
}

inline std::vector<std::string> fileLines(const std::string &path) {
    std::vector<std::string> out;
    std::ifstream in(path);
    for (std::string l; std::getline(in, l);) out.push_back(l);
    return out;
}

// Port index 0 names "qmxldd0" (and at least one port is discovered) during
// a test; the discovered table is put back afterwards.  Skips outside the
// virtual host.
class PortZeroTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (stateDir().empty() || access("/dev/qmxldd0", F_OK) != 0)
            GTEST_SKIP() << "needs the virtual host";
        savedPorts_ = c_max_port;
        std::memcpy(&savedDev_, &dev_info_all[0], sizeof savedDev_);
        std::snprintf(dev_info_all[0].name, sizeof dev_info_all[0].name, "qmxldd0");
        if (c_max_port < 1) c_max_port = 1;
    }
    void TearDown() override {
        if (savedPorts_ >= 0) {
            c_max_port = savedPorts_;
            std::memcpy(&dev_info_all[0], &savedDev_, sizeof savedDev_);
        }
    }

    int savedPorts_ = -1;
    dev_info savedDev_{};
};

}  // namespace biostest
