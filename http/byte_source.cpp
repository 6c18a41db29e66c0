#include "http/byte_source.h"

int HttpSocketSource::RecvOnce(void* buf, int len, int* got, int timeout_ms, int flags, DbPrintf_Class* pDB)
{
    return Sock_Recv_OneBlock(m_nFd, buf, len, got, timeout_ms, flags, pDB);
}

int HttpSocketSource::RecvFill(void* buf, int len, int* got, int timeout_ms, SockExitFlag* exitFlag,
                               DbPrintf_Class* pDB)
{
    return Sock_Recv(m_nFd, buf, len, got, timeout_ms, SOCK_FIXED_FLAGS, exitFlag, pDB);
}
