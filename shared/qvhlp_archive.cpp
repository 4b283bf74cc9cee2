#include "qvhlp_archive.h"

#include <cstdio>
#include <ctime>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "qv_handles.h"

std::string qvhlp_archive_name(const char* path) {
    char stamp[80];
    time_t now = time(nullptr);
    struct tm local {};
    localtime_r(&now, &local);
    strftime(stamp, sizeof(stamp), "%F__%H-%M-%S", &local);
    char archive_name[4096];
    snprintf(archive_name, sizeof(archive_name), "%s_%s.zip", path, stamp);
    return archive_name;
}

int qvhlp_archive_and_remove(const char* path, const std::string& archive_name) {
    qv::archive_write_ptr archive(archive_write_new());
    if (!archive || archive_write_set_format_zip(archive.get()) != ARCHIVE_OK ||
        archive_write_open_filename(archive.get(), archive_name.c_str()) != ARCHIVE_OK) {
        return -1;
    }
    struct stat st {};
    stat(path, &st);
    qv::archive_entry_ptr entry(archive_entry_new());
    archive_entry_set_pathname(entry.get(), path);
    archive_entry_set_size(entry.get(), st.st_size);
    archive_entry_set_filetype(entry.get(), AE_IFREG);
    archive_entry_set_perm(entry.get(), 0644);
    archive_write_header(archive.get(), entry.get());
    qv::unique_fd fd(open(path, O_RDONLY));
    if (fd) {
        std::vector<char> buffer(8192);
        ssize_t n;
        while ((n = read(fd.get(), buffer.data(), buffer.size())) > 0) {
            archive_write_data(archive.get(), buffer.data(), static_cast<size_t>(n));
        }
    }
    entry.reset();
    archive_write_close(archive.get());
    archive.reset();
    unlink(path);
    return 0;
}
