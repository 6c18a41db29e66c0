#ifndef OSTREL_CONTROL_SHARED_STATE_H
#define OSTREL_CONTROL_SHARED_STATE_H

// The process-wide words shared by the control port and the camera thread
// live with the camera library, which both the control port and the daemon
// link.
#include "camera/shared_state.h"

#endif
