// Helpers shared by the port parameter and link setting tests: the
// configuration file as items, trace order, and the BIOS tool's runs.
#pragma once

#include <initializer_list>
#include <string>
#include <vector>

#include "vhost.h"

class ParamsVHostTest : public VHostTest {
protected:
    // Discovery (once per process) queries every port itself: tests that
    // count or fail requests run it first.
    static void discover() { ASSERT_GE(QMX_InitRoutine(portWwn(0)), 0); }

    static void appendConf(const std::string &items) {
        std::string text = readFile(kConf);
        while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
        ASSERT_TRUE(writeFile(kConf, text + items));
    }
    static bool confHas(const std::string &text) { return readFile(kConf).find(text) != std::string::npos; }
    // "key=value" as a whole item of the file, so that "=1" does not match "=10".
    static bool confHasItem(const std::string &keyValue) {
        std::string text = readFile(kConf);
        for (std::size_t at = text.find(keyValue); at != std::string::npos; at = text.find(keyValue, at + 1)) {
            bool startOk = at == 0 || text[at - 1] == ':' || text[at - 1] == '\n' || text[at - 1] == ' ';
            std::size_t end = at + keyValue.size();
            bool endOk = end == text.size() || text[end] == ':' || text[end] == '\n';
            if (startOk && endOk) return true;
        }
        return false;
    }
    static bool confHasKey(const std::string &key) {
        std::string text = readFile(kConf);
        std::string k = key + "=";
        for (std::size_t at = text.find(k); at != std::string::npos; at = text.find(k, at + 1))
            if (at == 0 || text[at - 1] == ':' || text[at - 1] == '\n' || text[at - 1] == ' ') return true;
        return false;
    }

    // Whether the messages appear in this order (others may come between).
    static bool inOrder(std::initializer_list<std::string> msgs) {
        int at = 0;
        for (const std::string &msg : msgs) {
            at = traceIndex(msg, at);
            if (at < 0) return false;
            ++at;
        }
        return true;
    }
    // The last message before `msg`'s first occurrence, or "".
    static std::string before(const std::string &msg) {
        std::vector<std::string> lines = traceLines();
        for (std::size_t i = 1; i < lines.size(); ++i)
            if (lines[i] == msg) return lines[i - 1];
        return "";
    }
    // Runs of the BIOS tool: whether one had `args` in its command line, and
    // how many there were.
    static bool toolRan(const std::string &args) {
        for (const std::string &l : toolLog("qmxbios"))
            if (l.find(args) != std::string::npos) return true;
        return false;
    }
    static int toolRuns() {
        int n = 0;
        for (const std::string &l : toolLog("qmxbios")) n += l.empty() ? 0 : 1;
        return n;
    }
};
