// Simulated adapter diagnostic tool.
//
//   qmxdiag -x -O1 -P <parameter file> -L <log file> -S /dev/qmxldd<N>
//
// Reads the key=value parameter file, "runs" the selected tests against the
// simulated port and writes a qmxdiag_exec.log style result log.  Exit 0 when
// every test passed; 2 for a bad command line or an unknown device; 3 when
// the port's "diag_result" in the virtual host's state is "fail".  The
// parameter file of the last run is kept as "$QMXSIM_STATE/tools/qmxdiag.params".
#include <sys/stat.h>

#include <cstdio>
#include <ctime>
#include <string>
#include <vector>

#include "simstate.h"
#include "toolcommon.h"

namespace {

int devnoOf(const std::string &dev) {
    const std::string prefix = "/dev/qmxldd";
    if (dev.compare(0, prefix.size(), prefix) != 0 || dev.size() == prefix.size()) return -1;
    int n = 0;
    for (std::size_t i = prefix.size(); i < dev.size(); ++i) {
        if (dev[i] < '0' || dev[i] > '9' || n > 255) return -1;
        n = n * 10 + (dev[i] - '0');
    }
    return n <= 255 ? n : -1;
}

}  // namespace

int main(int argc, char **argv) {
    int early = qmxsim::tool::begin("qmxdiag", argc, argv);
    if (early >= 0) return early;
    std::string param = qmxsim::tool::optionValue(argc, argv, "-P");
    std::string log = qmxsim::tool::optionValue(argc, argv, "-L");
    std::string dev = qmxsim::tool::optionValue(argc, argv, "-S");
    if (param.empty() || log.empty() || dev.empty() || !qmxsim::tool::hasOption(argc, argv, "-x")) {
        std::fprintf(stderr, "usage: qmxdiag -x -O1 -P <param> -L <log> -S <device>\n");
        return 2;
    }
    std::string text;
    std::vector<std::string> params;
    if (!qmxsim::tool::readFile(param, text)) {
        std::fprintf(stderr, "qmxdiag: cannot read %s\n", param.c_str());
        return 2;
    }
    if (std::string tools = qmxsim::tool::toolDir(); !tools.empty())
        qmxsim::tool::writeFile(tools + "/qmxdiag.params", text);
    std::size_t pos = 0;
    while (pos < text.size()) {
        std::size_t nl = text.find('\n', pos);
        if (nl == std::string::npos) nl = text.size();
        if (nl > pos) params.push_back(text.substr(pos, nl - pos));
        pos = nl + 1;
    }
    int devno = devnoOf(dev);
    struct stat st;
    bool present = devno >= 0 && stat(dev.c_str(), &st) == 0;
    bool fail = false;
    std::string state = qmxsim::tool::stateDir();
    if (present && !state.empty()) {
        qmxsim::StateStore store(state);
        store.read([&](const qmxsim::json &s) {
            if (const qmxsim::json *p = qmxsim::findPort(s, devno)) fail = p->value("diag_result", "pass") == "fail";
            else present = false;
        });
    }
    std::time_t now = std::time(nullptr);
    char stamp[64] = "";
    struct tm tmv;
    if (localtime_r(&now, &tmv) != nullptr) std::strftime(stamp, sizeof stamp, "%Y/%m/%d %H:%M:%S", &tmv);
    std::string out;
    out += "qmxdiag execution log\n";
    out += std::string("date        : ") + stamp + "\n";
    out += "device      : " + dev + "\n";
    out += "parameters  : " + param + "\n";
    for (const std::string &p : params) out += "  " + p + "\n";
    if (!present) {
        out += "result      : ERROR (device not found)\n";
    } else {
        out += std::string("result      : ") + (fail ? "FAIL" : "PASS") + "\n";
    }
    if (!qmxsim::tool::writeFile(log, out)) {
        std::fprintf(stderr, "qmxdiag: cannot write %s\n", log.c_str());
        return 2;
    }
    if (!present) return 2;
    return fail ? 3 : 0;
}
