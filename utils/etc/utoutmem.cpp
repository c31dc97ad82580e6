// utoutmem.cpp: the out-of-memory hook. The library keeps no memory that it could give up, so it never asks
// for a second attempt.
#include "utils/etc/utoutmem.h"

a_bool ut_out_of_memory() { return FALSE; }
