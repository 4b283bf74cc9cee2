// The heartbeat table shared with the scan processes: a file of 32-bit entries, mapped into
// memory, in which a non-zero entry marks a live scan process. Readers and writers take turns
// under a named semaphore. Also the small memory-mapped-file helper it is built on.
#pragma once

#include <cstddef>
#include <memory>

#include <semaphore.h>

// One shared mapping of a file; the mapping ends with the object.
struct mappedRegionS {
    void* addr = nullptr;  // start of the mapping, null while nothing is mapped
    size_t length = 0;     // bytes mapped

    mappedRegionS() = default;
    mappedRegionS(const mappedRegionS&) = delete;
    mappedRegionS& operator=(const mappedRegionS&) = delete;
    ~mappedRegionS();
};

// Creates the table with `entries` zeroed 32-bit entries; an existing file is kept as it is,
// whatever its size. 0 or -1.
int qvctrl_InitializeHeartbeatFile(const char* path, int entries);

// Counts the live entries from the first up to the first zero entry, then resets the table to
// zero. Holds `semaphore` (waiting at most 3 s, and counting anyway after that) around the
// access. When all `entries` are live, the word just past the table is examined too, so `addr`
// must be readable one entry beyond the table.
int qvctrl_CountHeartbeats(void* addr, int entries, sem_t* semaphore);

// Maps the file at `path` shared, writable when `openflags` is O_RDWR. An existing regular file
// is mapped whole and opened with `openflags`; otherwise a new zero-filled file is created and
// `size` bytes of it are mapped. The record is stored in *region_out before anything can fail.
// 0, -1 (open, write or map failure) or -3 (no record could be allocated).
int memmap(const char* path, size_t size, std::unique_ptr<mappedRegionS>* region_out,
           int openflags);
void* memGetAddr(const mappedRegionS* region);
size_t memGetLength(const mappedRegionS* region);
// Unmaps and frees the region; 0, or -1 when munmap fails.
int memunmap(std::unique_ptr<mappedRegionS>* region);
