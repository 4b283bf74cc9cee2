// Size switch of a log file into a zip archive: the file is copied into a new archive beside it
// and removed, so that the next write starts a new file. Used by the trace log and by the daemon's
// scan, block, update, status and error logs.
//
// An archive never replaces an existing file: it is created exclusively as
// "<path>_<local time>.zip", or, when that name is taken (several switches within one second),
// as "<path>_<local time>_1.zip", "_2", ... The log file is removed only once its archive has been
// written and closed completely; an archive that failed half-way is removed again and the log
// stays as it was. The helper writes nothing to the trace log itself (the trace log calls it while
// holding its own lock); callers log the reason it returns.
#pragma once

#include <string>

// "<path>_<YYYY-MM-DD__HH-MM-SS>.zip", stamped with the local time.
std::string qvhlp_archive_name(const char* path);
// Writes a zip archive with one entry named by `path` (regular file, 0644, the file's size)
// holding the file's bytes, then removes the file. The archive is `archive_name` (normally
// qvhlp_archive_name(path)) or, when a file of that name exists, the first free name with "_1",
// "_2", ... before its ".zip". 0 on success, with the name used in *written; -1 when no archive
// could be written completely, with the reason in *error: the file is then left as it is.
int qvhlp_archive_and_remove(const char* path, const std::string& archive_name,
                             std::string* written = nullptr, std::string* error = nullptr);
