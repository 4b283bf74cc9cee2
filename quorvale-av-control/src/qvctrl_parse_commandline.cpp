#include "qvctrl_parse_commandline.h"

#include <cstdio>

#include <getopt.h>
#include <unistd.h>

#include "log.h"
#include "qvctrl_read_config_parameters.h"

int qvctrl_parse_commandline(quorvale_control_config_t* config, int argc, char** argv) {
    static const struct option long_options[] = {
        {"basedir", required_argument, nullptr, 'a'},
        {"console-mode", no_argument, nullptr, 'm'},
        {"config-file", required_argument, nullptr, 'n'},
        {"debug", no_argument, nullptr, 'o'},
        {nullptr, 0, nullptr, 0},
    };
    // The parser keeps its position in globals; start from the first argument on every call.
    optind = 1;
    int c;
    while ((c = getopt_long(argc, argv, "a:mn:o", long_options, nullptr)) != -1) {
        switch (c) {
            case 'a':
                config->basedir = optarg;
                break;
            case 'm':
                config->console_mode = true;
                break;
            case 'n':
                config->config_file = optarg;
                // A missing or unreadable file is noticed later, when the NATS settings are
                // validated; its result is not a command-line error.
                qvctrl_ReadConfigParameters(config->config_file.c_str(), config, 0);
                break;
            case 'o':
                printf("PID: %d\n", getpid());
                printf("Press ENTER to continue...");
                fflush(stdout);
                getchar();
                break;
            default:
                fprintf(stderr, "Unknown option \"- %c\"", c);
                return -1;
        }
    }
    return 0;
}

void qvctrl_commanline_error() {
    fprintf(stderr,
            "Usage: quorvale-control -c <config hash> -d <base directory> -D <run as daemon> -e "
            "<MDP endpoint> -m <deployment mode> -n <max number of clients> -t <Temp path>\n");
}
