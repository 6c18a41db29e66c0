#ifndef OSTREL_DAEMON_GLOBALS_H
#define OSTREL_DAEMON_GLOBALS_H

#include "common/tokens.h"
#include "control/control_port_pool.h"

class StringBuf_Class;

// Process-wide objects of the daemon that no lower library owns. The states
// file, directory configuration and listening port objects live in conf/,
// the frame FIFO in fifo/, the configuration and the camera pool in camera/,
// the program command word in net/ and the log pointer in common/.

// Pool of control-port server threads. Driven by the main thread only.
extern ControlPort_ServerThread_ControlClass g_PiPPControlPort;

// Type name token, constructed empty; nothing fills it at present.
extern OneToken_Class g_PPD_Type_Name;

// Reserved; nothing reads or writes it.
extern int g_StartUpLevel;

// File name of the program (last component of argv[0]), at most 255
// characters; set by the entry before any thread starts.
extern char g_ProccessName[256];

// The launcher answer being built. Created by the entry with a capacity of
// 16384 bytes and destroyed at its end; null outside that span. Main thread
// only.
extern StringBuf_Class* g_HTTPD_ResponseBuf;

// "/dev/null" opened read-write by the entry (-1 before that); the forking
// start duplicates it onto descriptors 0, 1 and 2 of the daemon.
extern int g_NullFD;

#endif
