#ifndef OSTREL_CAMERA_CAM_WAKEUP_H
#define OSTREL_CAMERA_CAM_WAKEUP_H

// Wakes the camera thread while it idles. With nobody logged in the thread
// has nothing to do until a login, a change of the channel settings or a
// stop, so instead of passing its loop every 500 us it waits here; the login
// and the settings update call NotifyCamThread, so it reacts to them at
// once. A stop (the thread's command word at -1) is seen within one idle
// slice, as the stop signal does not end this wait.
//
// All three functions may be called from any thread at any time.

// Changes the number that CamThreadWakeSeq returns and wakes a waiter.
void NotifyCamThread();

// The current wake-up number. Take it before looking at what the wait is for
// (the login flag, the settings stamp), then wait with it: a notification
// that falls between the look and the wait ends the wait at once.
unsigned long long CamThreadWakeSeq();

// Returns when the wake-up number differs from seen or after usec
// microseconds, whichever comes first.
void WaitCamThreadWake(unsigned long long seen, long long usec);

#endif
