// Scan configuration files on premises: a key-separator-value text file (config/vsa,
// config/mime, config/activecontent) turned into the JSON array of [key, value] pairs that the
// configuration requests hand to workers and clients.
//
// Lines starting with '#' in their first column are comments; lines without the separator are
// skipped; only the first separator of a line splits it, and key and value are trimmed. Several
// files merge into one array when the array of an earlier call is passed on: with
// `update_existing` a key already there takes the later value in its earlier place, otherwise
// every occurrence is a pair of its own, in file order.
#pragma once

#include "qv_handles.h"

// The array (a new one when `array` is null) with the pairs of the file at `path` added. A
// missing path or an unreadable file leaves the array as it was (logged). With
// `cut_at_line_end` a value ends at its first CR or LF. Null when memory runs out: the array
// given is released then, as the result would be incomplete.
qv::json_ptr load_config_to_json(qv::json_ptr array, const char* path, const char* separator,
                                 int cut_at_line_end, int update_existing);
