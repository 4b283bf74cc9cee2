// The PID file under <base>/run/. A console instance proves it is alive by holding an exclusive
// lock on the file; a daemon instance by the process id written into it.
#pragma once

// Opens (creating with mode 0600) the PID file at `path`. With `lock` set, takes a non-blocking
// exclusive flock and writes nothing; without it, writes the process id as decimal text (no line
// end, no truncation, so a longer earlier content keeps its tail). Returns 0 with the open
// descriptor in *fd_out, which the caller keeps open for the life of the process; -1 with
// *fd_out = -1 on failure.
int qvctrl_StorePID(int* fd_out, const char* path, bool lock);
