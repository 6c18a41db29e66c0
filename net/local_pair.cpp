#include "net/local_pair.h"

#include <sys/socket.h>

#include "common/return_codes.h"

int Sock_OpenLocalPair(int fds[2])
{
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) {
        fds[0] = fds[1] = -1;
        return SYS_FUNC_ERROR;
    }
    return SUCCESS;
}
