// Path and file helpers: flattening, expansion, normalisation, directory times, whole-file writes.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <string_view>

// The path with every '/' replaced by '_' in a per-thread 4096-byte buffer; null for a null or
// empty path.
const char* qvhlp_FlattenPath(const char* path);
// Expands a leading '~' (from $HOME) and $NAME / ${NAME} environment references; an unset
// variable expands to nothing. Null when a reference is malformed ("${" without "}").
std::optional<std::string> qvhlp_expand_path(std::string_view path);
// Removes "." segments, resolves ".." against the segments before it and folds doubled slashes.
// An absolute path never climbs above "/"; a relative one keeps the ".." it cannot resolve.
std::string qvhlp_unix_path_normalize(std::string_view path);
// Modification time of a directory (or file); 0 when it cannot be read.
time_t qvhlp_get_dir_mtime(const char* path);
// Replaces the file's contents with the buffer. 0 or -1.
int qvhlp_dump_buffer_to_file(const char* path, const void* buffer, size_t length);
