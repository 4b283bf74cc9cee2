// The daemon's command line: --basedir, --console-mode, --config-file (read at once) and --debug.
#pragma once

#include "qvctrl_config.h"

// 0 when all arguments were consumed, -1 on any error (the message is on standard error).
int qvctrl_parse_commandline(quorvale_control_config_t* config, int argc, char** argv);
// Writes the usage text to standard error.
void qvctrl_commanline_error();
