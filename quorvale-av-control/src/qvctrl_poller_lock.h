// Leader lock between control processes: whichever process holds a non-blocking exclusive record
// lock (fcntl F_SETLK) on an agreed file leads a periodic job. There is no release: a leader stays
// leader until it closes the lock or ends. Record locks belong to the process, so two threads of
// one daemon would both hold it; each daemon uses one lock record from one thread.
#pragma once

#include <memory>
#include <string>

#include "qv_handles.h"

struct qvctrl_poller_lock {
    std::string path;
    qv::unique_fd fd;  // closed (-1) once the lock is closed
    bool held = false;
};

// Opens (creating, mode 0644) the lock file. Null when the path is empty or the file cannot be
// opened.
std::unique_ptr<qvctrl_poller_lock> qvctrl_poller_lock_open(const char* path);
// 1 when this process holds the lock (at once, without asking the system, once held), else 0.
int qvctrl_poller_lock_try_acquire(qvctrl_poller_lock* lock);
// 1 when the lock exists and is held.
int qvctrl_poller_lock_held(const qvctrl_poller_lock* lock);
// Closes the descriptor (the system drops the record lock with it) and frees the record.
void qvctrl_poller_lock_close(std::unique_ptr<qvctrl_poller_lock> lock);
