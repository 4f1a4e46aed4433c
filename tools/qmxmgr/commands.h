// The qmxmgr commands.  Each returns the process exit status and throws
// UsageError or CallError for the caller to report.
#pragma once

#include <string>
#include <vector>

#include "common.h"

namespace qmxmgr {

struct Options {
    bool json = false;
    bool allPorts = false;
    bool configured = false;
    bool follow = false;
    int lines = -1;
    std::string port;
    std::string state;
    std::vector<std::string> args;
};

int cmdPorts(const Options &o);
int cmdShow(const Options &o);
int cmdGet(const Options &o);
int cmdSet(const Options &o, bool unset);
int cmdNumbering(const Options &o);
int cmdNumberingChange(const Options &o, int operation);
int cmdDeletePath(const Options &o, int devno);
int cmdTrace(const Options &o);
int cmdBios(const Options &o);

}  // namespace qmxmgr
