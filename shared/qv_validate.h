// Checks for every value that arrives from outside and ends up in a NATS subject, a bucket key, a
// file path or a log line.
//
// nats-server closes the whole connection of a client that sends one malformed subject (a blank,
// a control character, a subject longer than its control line), so a single bad worker name
// would silence every service of the daemon. Every handler checks what it takes from a request
// against the grammar of the place the value goes to, and the messaging layer checks subjects
// and keys once more before any library call. A refused value is logged escaped and cut short,
// never as it came.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "log.h"

// Longest value taken from a request where the place it goes to sets no other bound.
inline constexpr size_t QV_VALUE_MAX = 255;
// Longest bucket key the messaging layer writes or reads.
inline constexpr size_t QV_KV_KEY_MAX = 1024;
// Longest subject the messaging layer sends to. nats-server's control line (4096 bytes by
// default) also carries the reply subject, the header and payload sizes.
inline constexpr size_t QV_SUBJECT_MAX = 2048;
// How much of a refused value the trace log shows.
inline constexpr size_t QV_LOG_VALUE_MAX = 64;

// A bucket key (and a value that becomes part of one): 1 to max_len characters of letters,
// digits, '-', '_', '=', '/' and '.', without an empty '.'-separated token (no leading,
// trailing or doubled dot).
bool qv_valid_key(std::string_view value, size_t max_len = QV_VALUE_MAX);

// A single name that is both a key token sequence and one path component: a realm or a SID.
// As qv_valid_key, without '/' (so "." and ".." are refused as well).
bool qv_valid_name(std::string_view value, size_t max_len = QV_VALUE_MAX);

// The subject of an event handler or a worker: a plain subject of the key alphabet (so no
// wildcard, no blank, no '$'), not an inbox ("_INBOX" prefix) and none of the subjects this
// daemon serves itself, at most QV_VALUE_MAX characters.
bool qv_valid_handler_subject(std::string_view subject);

// 1 when `subject` is one of the daemon's own service subjects.
bool qv_is_own_service_subject(std::string_view subject);

// A subject the messaging layer may publish or send a request to: 1 to max_len printable ASCII
// characters other than blank, '*' and '>', in non-empty '.'-separated tokens.
bool qv_valid_publish_subject(std::string_view subject, size_t max_len = QV_SUBJECT_MAX);

// A ';'-separated list of wildcard patterns (a subscription's scope): the key alphabet plus
// '*', '?' and ';', at most max_len characters; empty is allowed.
bool qv_valid_pattern_list(std::string_view patterns, size_t max_len = QV_VALUE_MAX);

// The relative path of a scan log below its base directory: '/'-separated components, each a
// qv_valid_name, never absolute, no empty, "." or ".." component, and a file name that is not
// one of the fixed log files ("epo.log", "block.log", "update.log", "status.log", "error.log")
// nor an archive (".zip") or trace (".trc") file.
bool qv_valid_log_path(std::string_view path, size_t max_len = QV_VALUE_MAX);

// A staged payload's manifest: `size` bytes in `chunks` chunks of `chunk_size` bytes. The chunks
// must cover the size with at most one chunk too many, and the size must not exceed `max_size`.
bool qv_valid_staged_manifest(int64_t chunks, int64_t size, size_t chunk_size, uint64_t max_size);

// A value for the trace log: CR, LF, TAB and backslash as "\r", "\n", "\t", "\\", every other
// control or non-ASCII byte as "\xNN", cut after max_len input characters ("..." marks the cut).
std::string qv_escape_for_log(std::string_view value, size_t max_len = QV_LOG_VALUE_MAX);

// A field of a log file line: CR and LF as "\r" and "\n", every other control byte (NUL
// included, and DEL) as "\xNN", so that one field never starts a new line. Other bytes stay.
std::string qv_escape_log_field(std::string_view value);

// Logs the warning "<what>: '<value escaped and cut>'" for a refused value, under the caller's
// function and line.
#define qv_log_refused(what, value) log_warn("%s: '%s'", (what), qv_escape_for_log(value).c_str())
