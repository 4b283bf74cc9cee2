// Size switch of a log file into a zip archive: the file is copied into "<path>_<local time>.zip"
// beside it and removed, so that the next write starts a new file. Used by the trace log and by
// the daemon's scan, block, update, status and error logs.
#pragma once

#include <string>

// "<path>_<YYYY-MM-DD__HH-MM-SS>.zip", stamped with the local time.
std::string qvhlp_archive_name(const char* path);
// Writes a zip archive at `archive_name` with one entry named by `path` (regular file, 0644, the
// file's size) holding the file's bytes, then removes the file. -1 when the archive cannot be
// created; the file is then left as it is.
int qvhlp_archive_and_remove(const char* path, const std::string& archive_name);
