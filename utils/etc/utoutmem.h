// utoutmem.h: the out-of-memory hook of the allocation wrappers.
#ifndef ETC_UTOUTMEM_H
#define ETC_UTOUTMEM_H

#include "corvex/types.h"

// Whether a failed allocation is worth a second attempt.
a_bool ut_out_of_memory();

#endif
