// The realm sets that the auth-file writer tool and the tests that check its output agree on:
// round i of writer `tag` writes 1 + i % 3 realms "<tag>-<i>-<k>" with passwords "pw-<i>-<k>".
#pragma once

#include <string>
#include <vector>

#include "qvctrl_write_broker_auth.h"

inline std::vector<qvctrl_realm_t> qvtest_auth_realms(const std::string& tag, long round) {
    std::vector<qvctrl_realm_t> realms;
    for (long k = 0; k <= round % 3; ++k) {
        const std::string n = std::to_string(round) + "-" + std::to_string(k);
        realms.push_back({tag + "-" + n, "pw-" + n});
    }
    return realms;
}
