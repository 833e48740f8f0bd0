// Bounded text functions.
#include <cstdio>
#include <cstring>

#include "tessera_host.h"

size_t Q_strlcpy(char *dst, const char *src, size_t size) {
    const size_t length = strlen(src);
    if (size != 0) {
        const size_t copied = length < size ? length : size - 1;
        memcpy(dst, src, copied);
        dst[copied] = '\0';
    }
    return length;
}

size_t Q_strlcat(char *dst, const char *src, size_t size) {
    const size_t used = strnlen(dst, size);
    if (used == size) return size + strlen(src);
    return used + Q_strlcpy(dst + used, src, size - used);
}

int Q_vsnprintf(char *dst, size_t size, const char *format, va_list args) {
    return vsnprintf(dst, size, format, args);
}

int Q_snprintf(char *dst, size_t size, const char *format, ...) {
    va_list args;
    va_start(args, format);
    const int length = vsnprintf(dst, size, format, args);
    va_end(args);
    return length;
}

int Q_sscanf(const char *text, const char *format, ...) {
    va_list args;
    va_start(args, format);
    const int fields = vsscanf(text, format, args);
    va_end(args);
    return fields;
}
