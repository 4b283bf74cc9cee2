// Reading the daemon's configuration file into the control configuration record: the control
// settings, the main NATS connection and the AMQP backend connection. Every key may be
// overridden by the environment variable "QV_" + key.
#pragma once

#include <memory>

#include "ini.h"
#include "qv_nats_config.h"
#include "qvctrl_config.h"

// Loads `config_file` and fills `config` key by key. The trace settings take effect at once.
// A file that other users can read is reported with a warning (it holds the broker password).
// Returns 0, or -1 at the first failure (the keys read until then stay set). `stub` is only
// logged.
int qvctrl_ReadConfigParameters(const char* config_file, quorvale_control_config_t* config,
                                int stub);

// Fills a new NATS connection record into `slot` from NATS_URL or BROKER_URL, BROKER_CERT and
// BROKER_NAME in [GLOBAL] and BROKER_PASSWORD and BROKER_USER in [section], each key name
// preceded by `prefix`. With `mandatory` a missing or empty URL, certificate or password is
// logged as an error; with `default_local` a missing broker name is "local". 0 or -1; a
// certificate is always required.
int qvctrl_ReadNatsConfigParameters(const char* section, const char* prefix, const ini_t* ini,
                                    bool mandatory, bool default_local,
                                    std::unique_ptr<qv_nats_config>& slot);

// Fills a new AMQP connection record into `slot` from BROKER_URL (split into host and port),
// BROKER_CERT and BROKER_NAME in [GLOBAL] and BROKER_USER and BROKER_PASSWORD in [section], each
// key name preceded by `prefix`. -1 when the URL is absent (the slot is then left as it was) or,
// with `mandatory`, when any of the keys is missing or empty.
int qvctrl_ReadAmqpConfigParameters(const char* section, const char* prefix, const ini_t* ini,
                                    bool mandatory, std::unique_ptr<qv_nats_config>& slot);
