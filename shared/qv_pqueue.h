// Persistent file queue: one file per element in a directory, shared by the threads of a process
// and by several processes, surviving crashes. An element is written under a temporary name and
// renamed into view, claimed by renaming it to a name that carries the consumer's process id, and
// deleted by the consumer once handled; every transition is one rename within the directory.
//
// On disk, for queue `qname` in `rundir`:
//   rundir/qname/control                       limits (three lines); also the lock file
//   rundir/qname/data/<P><uuid>.dat            a waiting element of prefix P
//   rundir/qname/data/temp_<P><uuid>.dat       an element being written
//   rundir/qname/data/claimed_<pid>_<P><uuid>.dat  an element claimed by process <pid>
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "qv_handles.h"

enum qv_pqueue_full_behaviour : int {
    RINGBUFFER = 1,
    FAIL = 2,
};

struct qv_pqueue {
    std::string queue_dir;       // rundir/qname
    std::string queue_data_dir;  // queue_dir/data
    std::string controlfile;     // queue_dir/control
    std::string semaphore_name;  // "qv_" + qname; kept for callers, no operation uses it
    // The control file, open while the queue lock is held.
    qv::unique_fd lock_fd;
    uint64_t max_elements = 0;
    uint64_t max_size = 0;
    // Advisory counters, recomputed from the directory at every push and pop. Producers push
    // without the lock, so they are atomics.
    std::atomic<uint64_t> current_elements{0};
    std::atomic<uint64_t> current_size{0};
    // Persisted with the limits; a full queue refuses new elements whatever it says.
    qv_pqueue_full_behaviour if_full = RINGBUFFER;
    // The in-process half of the queue lock (the flock on the control file is the other).
    std::mutex mutex;
};

// One element handed to a consumer.
struct qv_pqueue_data {
    std::string id;          // the element file's current path
    std::string restore_id;  // where a claimed element goes back to (set by claims)
    char prefix = 0;
    // datalen bytes followed by a terminating zero, so that text elements read as C strings.
    std::vector<unsigned char> data;
    uint64_t datalen = 0;
};

// Opens rundir/qname. An existing queue keeps the limits of its control file; file_flags 0 or
// exactly O_TRUNC purge it. A missing queue is created when file_flags is 0 or exactly O_CREAT,
// otherwise null with errno ENOENT.
std::unique_ptr<qv_pqueue> qv_pqueue_open(const char* rundir, const char* qname,
                                          uint64_t max_entries, uint64_t maxsize_on_disk,
                                          int file_flags, qv_pqueue_full_behaviour if_full);
// Creates the directories and the control file of the queue at q_dir (called by open).
std::unique_ptr<qv_pqueue> qv_pqueue_create_new(const char* qname, const char* q_dir,
                                                uint64_t max_entries, uint64_t maxsize_on_disk,
                                                int file_flags, qv_pqueue_full_behaviour if_full);
// Releases the handle; the files stay. 0, or -1 for null.
int qv_pqueue_close(std::unique_ptr<qv_pqueue> q);

// The queue lock: an exclusive non-blocking flock on the control file (between processes and
// between handles) and the handle's mutex (between threads). Never waits for another holder and
// is not re-entrant. 0 or -1.
int qv_pqueue_lock(qv_pqueue* q);
int qv_pqueue_unlock(qv_pqueue* q);

// Stores an element of `datalen` bytes (no lock needed). -1 for bad arguments, a full queue
// (temporary and claimed files count) or a write failure.
int qv_pqueue_push(qv_pqueue* q, char prefix, const void* data, uint64_t datalen);
// Reads the oldest element of prefix 'E' or 'L'; its file stays until the caller deletes `id`.
std::unique_ptr<qv_pqueue_data> qv_pqueue_pop(qv_pqueue* q, char prefix);
// With the queue lock held: claims up to max_batch waiting elements whose prefix occurs in
// prefix_filter, in directory order, by renaming them to this process's claimed names. The data
// is not read. The number claimed, or -1.
int qv_pqueue_claim_batch(qv_pqueue* q, const char* prefix_filter, size_t max_batch,
                          std::vector<std::unique_ptr<qv_pqueue_data>>* out);
// Returns claimed elements written at least max_age_secs ago to the queue. The number returned,
// 0 when the queue is locked by someone else, -1 on error.
int qv_pqueue_reclaim_stale_claims(qv_pqueue* q, long max_age_secs);
// Loads the element's file into data/datalen. 0 (an empty file included) or -1.
int qv_pqueue_data_read(qv_pqueue_data* element);
// Releases an element. 0, or -1 for null.
int qv_pqueue_data_free(std::unique_ptr<qv_pqueue_data> element);
// Resets the counters and rewrites the control file under the queue lock. 0 or -1.
int qv_pqueue_purge(qv_pqueue* q);

// The waiting name of a claimed element's file name ("claimed_<digits>_<L|E>..."), or empty when
// the name does not have that form.
std::string qv_pqueue_claimed_to_waiting_name(const std::string& claimed_name);
