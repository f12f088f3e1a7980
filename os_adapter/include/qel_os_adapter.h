/*
 * qel_os_adapter.h - the whole interface of libqel_os_adapter.
 *
 * Applications include this header (or one family header) and link with
 * -lqel_os_adapter; see each family header for its functions.
 */
#ifndef QEL_OS_ADAPTER_H
#define QEL_OS_ADAPTER_H

#include "qel_version.h"
#include "qel_frame.h"
#include "qel_file.h"
#include "qel_string.h"
#include "qel_memory.h"
#include "qel_mem_engine.h"
#include "qel_mutex.h"
#include "qel_thread.h"
#include "qel_sem.h"
#include "qel_time.h"
#include "qel_socket.h"
#include "qel_stats.h"
#include "qel_signal.h"
#include "qel_queue.h"
#include "qel_text.h"
#include "qel_history.h"
#include "qel_timer.h"
#include "qel_timer_engine.h"

#endif /* QEL_OS_ADAPTER_H */
