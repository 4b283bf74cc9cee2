// Thin wrappers over libuuid, plus QVstrerror (a copy of strerror in one shared buffer).
#pragma once

#include <uuid/uuid.h>

void qv_uuid_generate_random(uuid_t out);
int qv_uuid_generate_time_safe(uuid_t out);
void qv_uuid_unparse_lower(const uuid_t uuid, char* text);

// The system's error text in one process-wide 1024-byte buffer; every call overwrites it.
const char* QVstrerror(int errnum);
