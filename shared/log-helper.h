// Trace file management: the cross-process lock around the trace file (a named semaphore per
// path) and the size-triggered switch of the file into a zip archive beside it.
#pragma once

#include <cstddef>

#include <semaphore.h>

// 0 on success or when there is nothing to open, -1 when the semaphore cannot be opened.
int QVOpenTraceFile(const char* filename, int level, size_t maxsize_mb);
void QVCloseTraceFile();
// Lock callback installed by QVOpenTraceFile: action 1 waits (5000 ms), 0 posts.
int QVLogLock(sem_t* sem, int action);
// Archives the file when it has reached maxsize_mb * 1000000 bytes. Returns -1 whenever a file
// name was given, switched or not.
int QVLogCheckLogSwitch(const char* filename, size_t maxsize_mb);
