#ifndef OSTREL_NET_LOCAL_PAIR_H
#define OSTREL_NET_LOCAL_PAIR_H

// A connected pair of local (Unix domain) stream sockets, blocking, such as
// a process and its forked child talk through. SUCCESS with both
// descriptors in fds (the caller closes them), or SYS_FUNC_ERROR with both
// set to -1. Codes of common/return_codes.h; nothing is logged.
int Sock_OpenLocalPair(int fds[2]);

#endif
