// The call frame shared by every exported call, and the two calls that need
// no adapter.
#include "frame/frame.h"

#include <cstring>

namespace qmx {

Frame::Frame(const char *name, const char *startLabel) noexcept : name_(name) {
    QMX_G_ERROR_CD = QMX_ERR_NONE;
    if (QMX_OpenApiTraceFile() == nullptr)
        QMX_WriteSyslog(2, const_cast<char *>("Trace File Open Error"));
    if (startLabel != nullptr) tracef("%s START", startLabel);
}

Frame::~Frame() {
    if (!done_) fail();
}

bool Frame::lock(int target) noexcept {
    if (QMX_ExeclusiveLock(target) == 0) {
        lockTarget_ = target;
        return true;
    }
    trace("Lock retry count overflow !!");
    QMX_G_ERROR_CD = QMX_ERR_LOCK;
    finish("END", 1);  // END on this path: tools expect it
    return false;
}

int Frame::port(QMX_WWN wwn) noexcept { return QMX_InitRoutine(wwn); }

int Frame::setterPort(QMX_WWN wwn, bool *ok) noexcept {
    *ok = true;
    if (isAllZero(wwn)) return -1;
    int ind = QMX_InitRoutine(wwn);
    if (ind < 0) *ok = false;
    return ind;
}

void Frame::nullArg(const char *arg, const char *suffix) noexcept {
    tracef("%s%s", arg, suffix);
    QMX_G_ERROR_CD = QMX_ERR_INVALID_ARG;
}

QMX_STATUS Frame::invalid(const char *arg, const char *suffix) noexcept {
    tracef("%s%s", arg, suffix);
    QMX_G_ERROR_CD = QMX_ERR_INVALID_ARG;
    return fail();
}

void Frame::requestFailed(const char *request) noexcept {
    if (request != nullptr) trace(request);
    tracef("%s Error", name_);
}

QMX_STATUS Frame::ok() noexcept {
    finish("END", 0);
    return 0;
}

QMX_STATUS Frame::fail() noexcept {
    finish("ABEND", 1);
    return 1;
}

QMX_STATUS Frame::fail(int code) noexcept {
    QMX_G_ERROR_CD = code;
    return fail();
}

QMX_STATUS Frame::unsupported() noexcept {
    finish("UNSUPPORTED", 3);
    return 3;
}

void Frame::finish(const char *word, QMX_STATUS st) noexcept {
    if (done_) return;
    done_ = true;
    status_ = st;
    if (beforeEnd_ != nullptr) {
        void (*fn)(void *) = beforeEnd_;
        beforeEnd_ = nullptr;
        fn(beforeEndArg_);
    }
    // The unlock comes before the END or ABEND line; the trace closes last.
    if (lockTarget_ != 0) {
        releaseOwnLock(lockTarget_);
        lockTarget_ = 0;
    }
    tracef("%s %s", name_, word);
    QMX_CloseApiTraceFile();
}

}  // namespace qmx

int QMX_LastErrorCode(void) { return QMX_G_ERROR_CD; }

char *QMX_GetVendorAPIVersion(void) {
    // Static storage; written again on every call so that a caller that
    // wrote into it cannot change what the next caller reads.
    static char version[] = "06-02";
    std::memcpy(version, "06-02", sizeof version);
    QMX_G_ERROR_CD = QMX_ERR_NONE;
    return version;
}
