// What the auth-file tool (tests/tools/qv_test_auth_tool: another writer or lock holder of the
// broker authorisation file, as a process of its own) and the tests that run it agree on.
#pragma once

#include <string>
#include <vector>

#include <spawn.h>

#include "qvctrl_write_broker_auth.h"

extern char** environ;

// Round i of writer `tag` writes 1 + i % 3 realms "<tag>-<i>-<k>" with passwords "pw-<i>-<k>".
inline std::vector<qvctrl_realm_t> qvtest_auth_realms(const std::string& tag, long round) {
    std::vector<qvctrl_realm_t> realms;
    for (long k = 0; k <= round % 3; ++k) {
        const std::string n = std::to_string(round) + "-" + std::to_string(k);
        realms.push_back({tag + "-" + n, "pw-" + n});
    }
    return realms;
}

#ifdef QV_BIN_DIR
// Starts the tool with `args`; its pid, or -1.
inline pid_t qvtest_spawn_auth_tool(std::vector<std::string> args) {
    std::string tool = std::string(QV_BIN_DIR) + "/qv_test_auth_tool";
    args.insert(args.begin(), tool);
    std::vector<char*> argv;
    for (std::string& a : args) {
        argv.push_back(a.data());
    }
    argv.push_back(nullptr);
    pid_t pid = -1;
    return posix_spawn(&pid, tool.c_str(), nullptr, nullptr, argv.data(), environ) == 0 ? pid : -1;
}
#endif
