/* The exported header must compile as strict C99. */
#include "qmxvlib.h"

QMX_STATUS qmx_c99_probe(void);
QMX_STATUS qmx_c99_probe(void) {
    QMX_WWN w = {{0x21, 0, 0, 0x11, 0x22, 0x33, 0x44, 0x55}};
    (void)w;
    return QMX_LastErrorCode();
}
