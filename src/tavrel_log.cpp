/* The out-of-line part of the log statement: the sinks themselves. */
#include <stdarg.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>

#include "tavrel_internal.h"

namespace {

const char *level_text(uint32_t level_mask)
{
    switch (level_mask) {
    case TAVREL_LOG_MASK_LOW:
        return "(LOW):";
    case TAVREL_LOG_MASK_MED:
        return "(MED):";
    case TAVREL_LOG_MASK_HIGH:
        return "(HIGH):";
    default:
        return "(ERR):";
    }
}

/* The file record's prefix: time with unpadded milliseconds, source file,
 * function and line, then the level text. */
void file_prefix(FILE *out, const tavrel_log_site *site, const char *function)
{
    struct timeval now;
    gettimeofday(&now, NULL);
    const time_t seconds = now.tv_sec;
    /* localtime's result would be shared with every thread of the daemon. */
    struct tm local;
    memset(&local, 0, sizeof local);
    localtime_r(&seconds, &local);
    char clock_text[10];
    char time_text[25];
    strftime(clock_text, sizeof clock_text, "%T", &local);
    snprintf(time_text, sizeof time_text, "%s.%u", clock_text, static_cast<unsigned>(now.tv_usec / 1000));
    fprintf(out, "%25s %70s %40s():%3u %s", time_text, site->file, function, static_cast<unsigned>(site->line),
            level_text(site->level_mask));
}

} // namespace

extern "C" int tavrel_log_file_print(int, const char *, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const int written = vfprintf(logging_fd, format, args);
    va_end(args);
    return written;
}

extern "C" void tavrel_log_emit(const tavrel_log_site *site, const char *file_function,
                                tavrel_log_format_fn format, void *closure)
{
    if (file_function != NULL && log_to_file && logging_fd != NULL) {
        FILE *out = logging_fd;
        file_prefix(out, site, file_function);
        format(NULL, tavrel_log_file_print, closure);
        fputc('\n', out);
        fflush(out);
    }
    if (kv_log_mask & 1u) {
        char buffer[TAVREL_LOG_DIAG_BUFSZ];
        memset(buffer, 0, sizeof buffer);
        format(buffer, NULL, closure);
        kv_diag_emit_msg(site, buffer);
        tavrel_wipe(buffer, sizeof buffer);
    }
    if (kv_log_mask & 2u)
        format(NULL, __android_log_print, closure);
}

void tavrel_null_arg(const char *function, const char *name)
{
    TAVREL_LOG(ERR, "%s(): %s is NULL\n", function, name);
}
