// Simulated firmware download and backup tool.
//
//   qmxmcup [-s] -d <device name|all> -o download -f <image> [-c]
//   qmxmcup -d <device name|all> -o backup -f <directory> [-c]
//
// A download takes the version word of the image (32-bit big-endian word 9)
// as the running firmware version of the port(s) in the virtual host's
// state.  A backup writes "<directory>/<device name>.fw", a 4096-byte image
// whose word 9 is the port's running version.  Exit 0 on success, 2 for a bad
// command line, 4 for an unknown device or an unreadable image.
#include <cstdio>
#include <string>

#include "drvrecords.h"
#include "simstate.h"
#include "toolcommon.h"

int main(int argc, char **argv) {
    int early = qmxsim::tool::begin("qmxmcup", argc, argv);
    if (early >= 0) return early;
    std::string dev = qmxsim::tool::optionValue(argc, argv, "-d");
    std::string op = qmxsim::tool::optionValue(argc, argv, "-o");
    std::string file = qmxsim::tool::optionValue(argc, argv, "-f");
    if (dev.empty() || file.empty() || (op != "download" && op != "backup")) {
        std::fprintf(stderr, "usage: qmxmcup [-s] -d <device|all> -o download|backup -f <file> [-c]\n");
        return 2;
    }
    std::string state = qmxsim::tool::stateDir();
    if (state.empty()) return 0;
    uint32_t version = 0;
    if (op == "download") {
        std::string image;
        if (!qmxsim::tool::readFile(file, image) || image.size() < 40) {
            std::fprintf(stderr, "qmxmcup: cannot read image %s\n", file.c_str());
            return 4;
        }
        for (int i = 0; i < 4; ++i) version = (version << 8) | uint8_t(image[std::size_t(36 + i)]);
    }
    bool wrote = true;
    auto each = [&](qmxsim::json &p, const std::string &name) {
        if (op == "download") {
            p["firmware_ver"] = version;
            if (p.contains("prinfo") && p["prinfo"].is_object()) p["prinfo"].erase("firmware_ver");
            return;
        }
        std::string img(4096, '\0');
        uint32_t v = uint32_t(qmxsim::fieldU64(p, "firmware_ver", 0x01020304));
        if (p.contains("prinfo") && p["prinfo"].contains("firmware_ver"))
            v = uint32_t(qmxsim::toU64(p["prinfo"]["firmware_ver"]));
        for (int i = 0; i < 4; ++i) img[std::size_t(36 + i)] = char(v >> (24 - 8 * i));
        wrote = qmxsim::tool::writeFile(file + "/" + name + ".fw", img) && wrote;
    };
    bool found = qmxsim::tool::updatePorts("qmxmcup", state, dev, op == "download", each);
    return found && wrote ? 0 : 4;
}
