// Storage of the persistent binding tables (see binding_tables.h).
#include "config/binding_tables.h"

__TBLKEY TBLKEY[BINDMAX];
int bind_cnt = 0;
int pbind_cnt = 0;
__WWPN WWPN[HADAPTMAX];
int wwpn_cnt = 0;
