/* A C program linked against the shared object: the exported names resolve
   and the version call behaves as documented. */
#include <stdio.h>
#include <string.h>

#include "qmxvlib.h"

int main(void) {
    const char *v = QMX_GetVendorAPIVersion();
    if (v == NULL || strcmp(v, "06-02") != 0) {
        fprintf(stderr, "unexpected version %s\n", v ? v : "(null)");
        return 1;
    }
    if (QMX_LastErrorCode() != 0) return 1;
    QMX_G_ERROR_CD = 7;
    if (QMX_LastErrorCode() != 7 || QMX_LastErrorCode() != 7) return 1;
    (void)QMX_GetVendorAPIVersion();
    if (QMX_LastErrorCode() != 0) return 1;
    puts("c consumer ok");
    return 0;
}
