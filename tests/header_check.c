/* Compiled as C11: the public header, its records and the log statement. */
#include <errno.h>
#include <string.h>

#include "libnltavrel.h"

void tavrel_header_check(int fd);

void tavrel_header_check(int fd)
{
    TAVREL_LOG(LOW, "%s(): opened file descriptor %p\n", __func__, (void *)(intptr_t)fd);
    TAVREL_LOG(ERR, "%s(): failed: errno=[%d, %s]\n", __func__, errno, strerror(errno));
    TAVREL_LOG_NOFILE(MED, "Matches AddressIPv4 addr [%d.%d.%d.%d]", 10, 0, 0, 1);
}
