#include "qv_shm-heartbeat.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <new>
#include <vector>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "log.h"
#include "qv_handles.h"
#include "qvsemaphore.h"

namespace {

constexpr int s_entry_size = static_cast<int>(sizeof(int32_t));

// Creates the file to be mapped and fills it with 2 * length zero bytes: the mapped part, then
// as much again behind it.
int s_create_zeroed_file(const char* path, size_t length, qv::unique_fd* fd_out) {
    log_trace("Creating new file to be mapped to memory");
    qv::unique_fd fd(open(path, O_RDWR | O_CREAT, 0600));
    if (!fd) {
        log_error("Failed to open %s: %s", path, strerror(errno));
        return -1;
    }
    const char zero = 0;
    for (size_t i = 0; i < length; ++i) {
        if (write(fd.get(), &zero, 1) != 1) {
            log_error("Failed to write %s: %s", path, strerror(errno));
            return -1;
        }
    }
    const std::vector<char> zeros(std::max<size_t>(1024, length), 0);
    if (write(fd.get(), zeros.data(), length) != static_cast<ssize_t>(length)) {
        log_error("Failed to write %s: %s", path, strerror(errno));
        return -1;
    }
    *fd_out = std::move(fd);
    return 0;
}

}  // namespace

mappedRegionS::~mappedRegionS() {
    if (addr != nullptr) {
        munmap(addr, length);
    }
}

int qvctrl_InitializeHeartbeatFile(const char* path, int entries) {
    log_trace("Entering");
    if (access(path, F_OK) == 0) {
        log_warn("Hearbeat file already/still existed");
        log_trace("Exiting, rc=%d", 0);
        return 0;
    }
    qv::file_ptr fp(fopen(path, "w"));
    if (!fp) {
        log_error("Failed to open heartbeat file %s: Reason: %s", path, strerror(errno));
        log_trace("Exiting, rc=%d", -1);
        return -1;
    }
    // Scan processes of other users read and write the table too.
    chmod(path, 0777);
    log_debug("File %s opened. attempting to write", path);

    const int32_t zero = 0;
    int written = 0;
    for (int i = 0; i < entries; ++i) {
        written += static_cast<int>(fwrite(&zero, sizeof(zero), 1, fp.get()));
    }
    log_debug("Wrote %d bytes to file %s", written, path);

    if (written != entries) {
        log_error("Failed to write %d entries of size %d bytes. Reason: %s", entries, s_entry_size,
                  strerror(errno));
        log_trace("Exiting, rc=%d", -1);
        return -1;
    }
    log_info("Heartbeat file %s initialized with %d entries of size %d", path, entries,
             s_entry_size);
    log_trace("Exiting, rc=%d", 0);
    return 0;
}

int qvctrl_CountHeartbeats(void* addr, int entries, sem_t* semaphore) {
    log_trace("Entering");
    // A scan process that died holding the semaphore must not stop the count: the result of the
    // wait is deliberately ignored.
    QVsem_timedwait(semaphore, 3000);
    const size_t table_bytes = static_cast<size_t>(std::max(entries, 0)) * sizeof(int32_t);
    msync(addr, table_bytes, MS_SYNC);

    auto* table = static_cast<int32_t*>(addr);
    int count = 0;
    for (int i = 0; i <= entries && table[i] != 0; ++i) {
        ++count;
    }
    for (int i = 0; i < entries; ++i) {
        table[i] = 0;
    }
    msync(addr, table_bytes, MS_SYNC);
    QVsem_post(semaphore);
    log_trace("Exiting, rc=%d", count);
    return count;
}

int memmap(const char* path, size_t size, std::unique_ptr<mappedRegionS>* region_out,
           int openflags) {
    log_trace("Entering");
    if (region_out == nullptr) {
        log_error("Invalid parameter");
        log_trace("Exiting, rc=%d", -1);
        return -1;
    }
    try {
        *region_out = std::make_unique<mappedRegionS>();
    } catch (const std::bad_alloc&) {
        log_error("Failed to allocate %s", "mappedRegionS");
        log_trace("Exiting, rc=%d", -3);
        return -3;
    }
    mappedRegionS& region = **region_out;

    struct stat st {};
    const bool exists = stat(path, &st) == 0 && S_ISREG(st.st_mode);
    size_t length = size;
    if (exists) {
        length = static_cast<size_t>(st.st_size);
        log_trace("File exists %s and is %d bytes in size", path, static_cast<int>(length));
    }

    qv::unique_fd fd;
    if (exists) {
        fd.reset(open(path, openflags, 0600));
        // open() reports failure as -1, so this never fires: a failed open surfaces as the
        // mmap failure below, which names the reason.
        if (fd.get() < -1) {
            log_error("Failed to open %s: %s", path, strerror(errno));
            log_trace("Exiting, rc=%d", -1);
            return -1;
        }
    } else if (s_create_zeroed_file(path, length, &fd) != 0) {
        log_trace("Exiting, rc=%d", -1);
        return -1;
    }

    int prot = PROT_READ;
    if ((openflags & O_ACCMODE) == O_RDWR) {
        prot |= PROT_WRITE;
    }
    void* addr = mmap(nullptr, length, prot, MAP_SHARED, fd.get(), 0);
    const int map_errno = errno;
    fd.reset();
    if (addr == MAP_FAILED) {
        log_error("mmap failed: %s", strerror(map_errno));
        log_trace("Exiting, rc=%d", -1);
        errno = map_errno;
        return -1;
    }
    region.addr = addr;
    region.length = length;
    log_trace("Exiting: rc = 0");
    return 0;
}

void* memGetAddr(const mappedRegionS* region) {
    return region != nullptr ? region->addr : nullptr;
}

size_t memGetLength(const mappedRegionS* region) {
    return region != nullptr ? region->length : 0;
}

int memunmap(std::unique_ptr<mappedRegionS>* region) {
    if (region == nullptr || !*region) {
        return 0;
    }
    int rc = 0;
    if ((*region)->addr != nullptr) {
        rc = munmap((*region)->addr, (*region)->length);
        (*region)->addr = nullptr;
    }
    region->reset();
    return rc;
}
