/* corvex.h: the whole public interface. */
#pragma once

#include "corvex/crash.h"
#include "corvex/forkprotection.h"
#include "corvex/hist.h"
#include "corvex/hist_image.h"
#include "corvex/identity.h"
#include "corvex/onsig.h"
#include "corvex/print.h"
#include "corvex/ptcondvar.h"
#include "corvex/ptmutex.h"
#include "corvex/ptsem.h"
#include "corvex/sysvsem.h"
#include "corvex/thread.h"
#include "corvex/types.h"
#ifdef __cplusplus
#include "corvex/vmutex.h"
#endif
