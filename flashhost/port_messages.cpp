#include "flashhost/port_messages.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "serial/CCommU.h"

void PrintRateList()
{
    printf("Baud should be one of the values below:\r\n");
    for (int i = 0; i < kRateTableSize; ++i)
        printf("%u ", name_arr[i]);
    printf("\r\n\r\n");
}

void PrintOpenFailure(const char* path, int error)
{
    printf("ERR: can't open serial port:%s!\r\n", path);
    // Flushed first: the explanation on the error stream comes after the line.
    fflush(stdout);
    fprintf(stderr, "%s: %s\n", path, strerror(error));
    if (error == EACCES)
        fprintf(stderr, "hint: your user may not be in the group that owns %s (often "
                        "dialout): sudo usermod -aG dialout $USER, then log in again\n",
                path);
    else if (error == EBUSY || error == EWOULDBLOCK)
        fprintf(stderr, "hint: another program holds %s; close it (a terminal program, "
                        "a modem manager, another kestrelQT_u) and try again\n",
                path);
}

void PrintRefusedRate(const char* what, const char* path, unsigned int baud)
{
    printf("ERR: %s: the serial port %s does not take %u bit/s!\r\n", what, path, baud);
}
