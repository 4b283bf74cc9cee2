#include "qv_uuid.h"

#include <cstring>

void qv_uuid_generate_random(uuid_t out) {
    uuid_generate_random(out);
}
int qv_uuid_generate_time_safe(uuid_t out) {
    return uuid_generate_time_safe(out);
}
void qv_uuid_unparse_lower(const uuid_t uuid, char* text) {
    uuid_unparse_lower(uuid, text);
}

const char* QVstrerror(int errnum) {
    static char buffer[1024];
    memset(buffer, 0, sizeof(buffer));
    char tmp[1024];
    const char* text = strerror_r(errnum, tmp, sizeof(tmp));
    strncpy(buffer, text, sizeof(buffer) - 1);
    return buffer;
}
