// Fuzz target: the reader of the driver's per-host /proc entry (readvProc),
// which scans "/proc/scsi/vqmxldd/<host>" for the "Instance_number" line.
//
// "/proc/scsi" cannot be created by an ordinary process, so this target
// interposes fopen for that one prefix and sends it to a private directory
// (the same redirect the virtual host's driver library makes); every other
// path goes to the C library unchanged.
//
// Checked (a violation traps):
//   - the input as the entry of host H: the reader returns -1 when the text
//     holds no "Instance_number" at all;
//   - the input with every "Instance_number" defused, followed by a line in
//     the driver's format: the reader returns that line's number, whatever
//     came before it (long lines, NULs, stray digits);
//   - a host without an entry gives -1.
#include <dlfcn.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "frame/frame.h"

namespace {

constexpr char kProcPrefix[] = "/proc/scsi/vqmxldd/";
constexpr char kKey[] = "Instance_number";

// Created at the first use, removed with its entries when the process
// exits.  A plain array: it must outlive the exit handler.
char g_dir[64];

void removeRedirectDir() {
    for (int host = 0; host < 256; ++host)
        ::unlink((std::string(g_dir) + "/" + std::to_string(host)).c_str());
    ::rmdir(g_dir);
}

std::string redirectDir() {
    static bool made = [] {
        // Memory-backed when possible: every input creates and removes files.
        std::snprintf(g_dir, sizeof g_dir, "/dev/shm/qmx-fuzz-proc-XXXXXX");
        if (mkdtemp(g_dir) == nullptr) {
            std::snprintf(g_dir, sizeof g_dir, "/tmp/qmx-fuzz-proc-XXXXXX");
            if (mkdtemp(g_dir) == nullptr) return false;
        }
        std::atexit(removeRedirectDir);
        return true;
    }();
    return made ? std::string(g_dir) : std::string();
}

using FopenFn = FILE *(*)(const char *, const char *);

FILE *redirected(FopenFn real, const char *path, const char *mode) {
    if (real == nullptr) return nullptr;
    const std::size_t n = sizeof kProcPrefix - 1;
    if (path != nullptr && std::strncmp(path, kProcPrefix, n) == 0 && !redirectDir().empty()) {
        std::string target = redirectDir() + "/" + (path + n);
        return real(target.c_str(), mode);
    }
    return real(path, mode);
}

void check(bool ok) {
    if (!ok) __builtin_trap();
}

bool writeEntry(int host, const std::string &text) {
    std::string path = redirectDir() + "/" + std::to_string(host);
    FILE *fp = std::fopen(path.c_str(), "wb");  // a real path: not redirected
    if (fp == nullptr) return false;
    bool good = text.empty() || std::fwrite(text.data(), 1, text.size(), fp) == text.size();
    return std::fclose(fp) == 0 && good;
}

}  // namespace

extern "C" FILE *fopen(const char *path, const char *mode) {
    static FopenFn real = reinterpret_cast<FopenFn>(dlsym(RTLD_NEXT, "fopen"));
    return redirected(real, path, mode);
}

extern "C" FILE *fopen64(const char *path, const char *mode) {
    static FopenFn real = reinterpret_cast<FopenFn>(dlsym(RTLD_NEXT, "fopen64"));
    return redirected(real, path, mode);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    check(!redirectDir().empty());
    std::string text(reinterpret_cast<const char *>(data), size);
    int host = size > 0 ? data[0] : 0;

    // As the driver might have written it.
    check(writeEntry(host, text));
    int got = readvProc(host);
    if (text.find(kKey) == std::string::npos) check(got == -1);

    // Earlier content cannot hide or change the driver's line.
    std::string defused = text;
    for (std::size_t at = defused.find(kKey); at != std::string::npos; at = defused.find(kKey, at))
        defused[at] = 'i';
    int want = int(size % 100000) - 50000;
    defused += "\n  Instance_number           = " + std::to_string(want) + "\n";
    check(writeEntry(host, defused));
    check(readvProc(host) == want);

    // No entry for this host.
    std::string missing = redirectDir() + "/" + std::to_string(host);
    ::unlink(missing.c_str());
    check(readvProc(host) == -1);
    return 0;
}
