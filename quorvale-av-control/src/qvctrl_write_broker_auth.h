// Broker authorisation file writer: keeps one delimited region of the local broker's user file,
// the cloud-managed realms, in step with a realm list and leaves every other byte of the file as
// it was. The installer writes the file with a users array; the first write puts a marker pair
// (with the realms between them) just before the array's closing "]" line, and every later write
// replaces only what lies between the markers.
//
// Several control daemons may write one file. A writer takes a whole-file record lock on the file
// it opened, makes sure that file is still the one at the path (another writer may have replaced
// it while this one waited), reads and merges under the lock, and replaces the file atomically
// (temporary file, fsync, rename, the old mode and owner), so that the broker and every other
// writer see either the old or the new complete file. A call whose region would not change writes
// nothing: the file keeps its inode and modification time and nobody reloads the broker for
// nothing.
//
// Realm values go into double-quoted strings of the server's configuration syntax as they are. A
// realm whose id or password would break that syntax, or could be taken for a marker, is left out
// with a warning, so that one bad realm can never lock every user out of the broker.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// The markers around the managed region; the dashes are U+2500 (box drawings light horizontal).
inline constexpr char QVCTRL_BEGIN_MARKER[] = "# ── BEGIN qv-av-control cloud-managed realms";
inline constexpr char QVCTRL_END_MARKER[] = "# ── END   qv-av-control cloud-managed realms";

struct qvctrl_realm_t {
    std::string realm_id;
    std::string password;
};

// Writes the realms (user "<realm_id>@<broker_name>") into the managed region of the file at
// auth_file_path. 0 when the file was written or already held exactly these realms, -1 on any
// failure (logged; the file is then as it was). *changed (optional) becomes true only when the
// file was replaced.
int qvctrl_write_broker_auth(const char* auth_file_path, const char* broker_name,
                             const qvctrl_realm_t* realms, size_t n_realms, bool* changed);

// The steps without the file, for tests and the fuzz target.

// The whole managed block: the begin marker line, eight lines per usable realm in input order,
// the end marker line. Unusable realms are left out with a warning. The broker name must already
// be known to be usable (qvctrl_broker_auth_value_ok).
std::string qvctrl_broker_auth_block(std::string_view broker_name, const qvctrl_realm_t* realms,
                                     size_t n_realms);

// True when `value` can stand in a double-quoted string of the broker's configuration as it is
// (no double quote, backslash or control character) and holds neither marker.
bool qvctrl_broker_auth_value_ok(std::string_view value);

enum class qvctrl_auth_merge {
    unchanged,     // the region already holds the block's realms; nothing to write
    replaced,      // the region's content was replaced
    bootstrapped,  // the whole block went in before the users array's closing "]" line
    refused,       // the text cannot be merged safely (logged)
};

// Merges `block` (as built by qvctrl_broker_auth_block) into `file_text`; `merged` receives the
// new file text when the result is replaced or bootstrapped. `n_realms` only goes into the log.
qvctrl_auth_merge qvctrl_broker_auth_merge(std::string_view file_text, std::string_view block,
                                           size_t n_realms, std::string* merged);
