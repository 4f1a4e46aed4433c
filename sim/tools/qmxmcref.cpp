// Simulated online firmware refresh tool.
//
//   qmxmcref [-d <device name|all>] [-c]
//
// Counts a refresh ("fw_refresh" counter) on the port(s) in the virtual
// host's state.  Without -d every port is refreshed.  Exit 0 on success, 4 for
// an unknown device.
#include <cstdio>
#include <string>

#include "simstate.h"
#include "toolcommon.h"

int main(int argc, char **argv) {
    int early = qmxsim::tool::begin("qmxmcref", argc, argv);
    if (early >= 0) return early;
    std::string dev = qmxsim::tool::optionValue(argc, argv, "-d");
    if (dev.empty()) dev = "all";
    std::string state = qmxsim::tool::stateDir();
    if (state.empty()) return 0;
    auto refresh = [](qmxsim::json &p, const std::string &) {
        qmxsim::json &cnt = p["counters"];
        if (!cnt.is_object()) cnt = qmxsim::json::object();
        cnt["fw_refresh"] = qmxsim::fieldI64(cnt, "fw_refresh", 0) + 1;
    };
    return qmxsim::tool::updatePorts("qmxmcref", state, dev, true, refresh) ? 0 : 4;
}
