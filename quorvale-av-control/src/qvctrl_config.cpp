#include "qvctrl_config.h"

std::unique_ptr<quorvale_control_config_t> qvctrl_config_new() {
    auto config = std::make_unique<quorvale_control_config_t>();
    config->log = std::make_unique<struct log_config>();
    config->update_config = std::make_unique<qv_update_config_t>();
    config->network_config = std::make_unique<qv_network_config_t>();
    return config;
}
