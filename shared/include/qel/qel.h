/** @file
 * Everything that libqel offers, in one include. Each family's header stands alone as well. */
#ifndef QEL_QEL_H
#define QEL_QEL_H

#include <qel/async.h>
#include <qel/atomic.h>
#include <qel/avl.h>
#include <qel/base.h>
#include <qel/bitlist.h>
#include <qel/cerrno.h>
#include <qel/clock_change.h>
#include <qel/dm.h>
#include <qel/dm_pf.h>
#include <qel/dm_threadpool.h>
#include <qel/dm_watched.h>
#include <qel/dt.h>
#include <qel/dt_buffer.h>
#include <qel/dt_dump.h>
#include <qel/hash.h>
#include <qel/idm.h>
#include <qel/ipc.h>
#include <qel/ipc_ctx.h>
#include <qel/ipc_debug.h>
#include <qel/list.h>
#include <qel/mem.h>
#include <qel/mem_vchunk.h>
#include <qel/mgd_timer.h>
#include <qel/ppm.h>
#include <qel/ptimer.h>
#include <qel/queue.h>
#include <qel/rbtree.h>
#include <qel/rdx.h>
#include <qel/reg.h>
#include <qel/ring.h>
#include <qel/sep.h>
#include <qel/shm.h>
#include <qel/sm.h>
#include <qel/thread.h>
#include <qel/time.h>
#include <qel/tw.h>
#include <qel/types.h>
#include <qel/wavl.h>

#endif
