// Typed configuration settings. The Get*FromConfigFile getters read one key of a loaded INI file;
// the qv_config_read_* helpers apply the rule every daemon setting follows: an environment
// variable named "QV_" + key, when set, replaces the file's value for that key.
#pragma once

#include <string>

#include "ini.h"

// Each getter returns 0 when the key is absent (the destination untouched) and 1 when it exists.
// A string setting is the first blank-delimited word of the value (empty when the value holds
// only white space). A number that does not scan leaves the destination as it was, and the
// getter still returns 1. The string getter returns -1 (logged) when the copy cannot be made.
int GetStringFromConfigFile(const ini_t* ini, const char* section, const char* key,
                            std::string* value);
int GetIntFromConfigFile(const ini_t* ini, const char* section, const char* key, int* value);
int GetLongFromConfigFile(const ini_t* ini, const char* section, const char* key, long* value);

// Results of the qv_config_read_* helpers.
enum qv_config_lookup {
    QV_CONFIG_FAILED = -1,  // already logged; the caller stops reading its configuration
    QV_CONFIG_ABSENT = 0,   // in neither place; the destination is untouched
    QV_CONFIG_FOUND = 1,
};

// Reads `key` from the environment variable QV_<key>, else from [section] of the file (ini may
// be null: environment only). Numbers from the environment are converted with base-10 strtol,
// trailing text ignored; a conversion error is a failure. Strings from the environment are taken
// whole. A string found nowhere logs a warning; a number found nowhere is silently absent.
int qv_config_read_int(const ini_t* ini, const char* section, const char* key, int* value);
int qv_config_read_long(const ini_t* ini, const char* section, const char* key, long* value);
int qv_config_read_string(const ini_t* ini, const char* section, const char* key,
                          std::string* value);
