// Named POSIX semaphores with millisecond time-outs; they keep cooperating processes (trace-file
// writers, heartbeat readers) one at a time.
#pragma once

#include <semaphore.h>
#include <sys/types.h>

// Opens or creates the named semaphore; `ignored` has no effect. Returns the handle or null.
sem_t* QVsem_open(const char* name, int oflag, mode_t mode, int ignored, unsigned int value);
// A time-out below 1 makes one non-blocking try; otherwise waits until now + milliseconds
// (CLOCK_REALTIME). Both forms are repeated while interrupted by a signal. 0 or -1.
int QVsem_timedwait(sem_t* semaphore, int milliseconds);
int QVsem_post(sem_t* semaphore);
int QVsem_unlink(const char* name);
