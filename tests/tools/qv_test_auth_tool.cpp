// A second process around the broker authorisation file, for tests that need another writer or
// another lock holder (record locks belong to a process, so a thread of the test cannot be one):
//   qv_test_auth_tool write <auth_file> <broker> <tag> <iterations>
//       rewrites the managed region <iterations> times (0: until killed), round i with the realms
//       of qvtest_auth_realms(tag, i); exits 1 at the first failed write
//   qv_test_auth_tool hold <file> <ready_file>
//       takes a whole-file write record lock on <file> (waiting for it), then creates
//       <ready_file> and keeps the lock until it is killed
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <unistd.h>

#include "auth_tool.h"
#include "log.h"
#include "qvctrl_write_broker_auth.h"

int main(int argc, char** argv) {
    qv__progname = argv[0];
    if (argc == 6 && strcmp(argv[1], "write") == 0) {
        const long iterations = atol(argv[5]);
        for (long i = 0; iterations == 0 || i < iterations; ++i) {
            const auto realms = qvtest_auth_realms(argv[4], i);
            if (qvctrl_write_broker_auth(argv[2], argv[3], realms.data(), realms.size(), nullptr) !=
                0) {
                return 1;
            }
        }
        return 0;
    }
    if (argc == 4 && strcmp(argv[1], "hold") == 0) {
        const int fd = open(argv[2], O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        struct flock whole {};
        whole.l_type = F_WRLCK;
        whole.l_whence = SEEK_SET;
        if (fd < 0 || fcntl(fd, F_SETLKW, &whole) != 0) {
            perror(argv[2]);
            return 1;
        }
        const int ready = open(argv[3], O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        if (ready < 0) {
            perror(argv[3]);
            return 1;
        }
        close(ready);
        for (;;) {
            pause();
        }
    }
    fprintf(stderr, "usage: %s write <file> <broker> <tag> <n> | hold <file> <ready>\n", argv[0]);
    return 2;
}
