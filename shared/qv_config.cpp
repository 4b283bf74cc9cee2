#include "qv_config.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>
#include <type_traits>

#include "log.h"

namespace {

// The white space at which a "%s" scan starts and stops.
constexpr const char* s_scan_space = " \t\n\v\f\r";

const char* s_section_name(const char* section) {
    return section != nullptr ? section : "";
}

// The first blank-delimited word of a value, as a "%s" scan reads it but without its buffer limit.
std::string_view s_first_word(const char* value) {
    const char* start = value + strspn(value, s_scan_space);
    return std::string_view(start, strcspn(start, s_scan_space));
}

const char* s_env_value(const char* key) {
    const std::string name = std::string("QV_") + key;
    return getenv(name.c_str());
}

template <typename T>
int s_read_number(const ini_t* ini, const char* section, const char* key, T* value) {
    static_assert(std::is_same_v<T, int> || std::is_same_v<T, long>);
    try {
        if (const char* env = s_env_value(key)) {
            errno = 0;
            const long number = strtol(env, nullptr, 10);
            if (errno != 0) {
                log_error("Error %d converting env variable %s", errno, key);
                return QV_CONFIG_FAILED;
            }
            *value = static_cast<T>(number);
            if constexpr (std::is_same_v<T, int>) {
                log_debug("Got %s from env variable. Value=[%d]", key, *value);
            } else {
                log_debug("Got %s from env variable. Value=[%ld]", key, *value);
            }
            return QV_CONFIG_FOUND;
        }
        if constexpr (std::is_same_v<T, int>) {
            if (GetIntFromConfigFile(ini, section, key, value) == 0) {
                return QV_CONFIG_ABSENT;
            }
            log_debug("Got %s from config file. Value=[%d]", key, *value);
        } else {
            if (GetLongFromConfigFile(ini, section, key, value) == 0) {
                return QV_CONFIG_ABSENT;
            }
            log_debug("Got %s from config file. Value=[%ld]", key, *value);
        }
        return QV_CONFIG_FOUND;
    } catch (const std::bad_alloc&) {
        log_error("Memory allocation error (%s)", key);
        return QV_CONFIG_FAILED;
    }
}

}  // namespace

int GetStringFromConfigFile(const ini_t* ini, const char* section, const char* key,
                            std::string* value) {
    if (ini_get(ini, section, key) == nullptr) {
        return 0;
    }
    const char* text = nullptr;
    if (ini_sget(ini, section, key, nullptr, &text) == 0) {
        log_trace("Parameter [%s] - %s not found ", s_section_name(section), key);
        return 0;
    }
    try {
        value->assign(s_first_word(text));
    } catch (const std::bad_alloc&) {
        log_error("Memory allocation error (%s)", key);
        return -1;
    }
    log_trace("Read \"%s\" for [%s] - %s", value->c_str(), s_section_name(section), key);
    return 1;
}

int GetIntFromConfigFile(const ini_t* ini, const char* section, const char* key, int* value) {
    if (ini_get(ini, section, key) == nullptr) {
        return 0;
    }
    if (ini_sget(ini, section, key, "%d", value) == 0) {
        log_trace("Parameter [%s] - %s not found ", s_section_name(section), key);
        return 0;
    }
    log_trace("Read \"%d\" for [%s] - %s", *value, s_section_name(section), key);
    return 1;
}

int GetLongFromConfigFile(const ini_t* ini, const char* section, const char* key, long* value) {
    if (ini_get(ini, section, key) == nullptr) {
        return 0;
    }
    if (ini_sget(ini, section, key, "%ld", value) == 0) {
        log_trace("Parameter [%s] - %s not found ", s_section_name(section), key);
        return 0;
    }
    log_trace("Read \"%ld\" for [%s] - %s", *value, s_section_name(section), key);
    return 1;
}

int qv_config_read_int(const ini_t* ini, const char* section, const char* key, int* value) {
    return s_read_number(ini, section, key, value);
}

int qv_config_read_long(const ini_t* ini, const char* section, const char* key, long* value) {
    return s_read_number(ini, section, key, value);
}

int qv_config_read_string(const ini_t* ini, const char* section, const char* key,
                          std::string* value) {
    try {
        if (const char* env = s_env_value(key)) {
            value->assign(env);
            log_debug("Got %s from env variable. Value=[%s]", key, value->c_str());
            return QV_CONFIG_FOUND;
        }
        const int found = GetStringFromConfigFile(ini, section, key, value);
        if (found < 0) {
            return QV_CONFIG_FAILED;
        }
        if (found > 0) {
            log_debug("Got %s from config file. Value=[%s]", key, value->c_str());
            return QV_CONFIG_FOUND;
        }
        log_warn("key %s not found in section [%s]", key, s_section_name(section));
        return QV_CONFIG_ABSENT;
    } catch (const std::bad_alloc&) {
        log_error("Memory allocation error (%s)", key);
        return QV_CONFIG_FAILED;
    }
}
