#ifndef OSTREL_CAMERA_CAM_THREAD_H
#define OSTREL_CAMERA_CAM_THREAD_H

#include "net/thread_control.h"

class DbPrintf_Class;

// Class_CamThread: the one camera thread. It moves pictures from the camera
// into g_Fifo (it is the FIFO's only writer), holds the camera stream open
// only while g_flagLoginUserExist is 1, follows configuration changes (a new
// update stamp of g_configInfoIOClass), times the post-alarm term and sends
// the storage stop to the schedule server once per term.
//
// It runs under a pool (CamThread_ControlClass) and ends when the pool sets
// its command word to -1; the command word is also the clients' socket exit
// flag, so a blocked camera read ends as soon as the stop is asked for.
// It logs to g_pDB. A FIFO that stops working ends the whole process with
// exit status -1.
class Class_CamThread : public ThreadControlElement {
public:
    // Camera settings used for the HTTP clients.
    static constexpr int CAMERA_BODY_SIZE = 819200;
    static constexpr int SCHEDULE_BODY_SIZE = 256;
    static constexpr int SOCKET_TIMEOUT_MS = 2000;
    // Longest wait after failed starts: 2^4 seconds.
    static constexpr int MAX_BACKOFF_EXPONENT = 4;
    // While nobody is logged in the thread waits for a login or a settings
    // change in slices of this length, looking for a stop after each.
    static constexpr long long kIdleSliceUsec = 100000;

    Class_CamThread();
    ~Class_CamThread() override;

    // The loop. SUCCESS after a stop request; DEBUG_WARNING at once without
    // an owner pool. pDB is not used: everything is logged to g_pDB.
    int ThreadMain(DbPrintf_Class* pDB) override;

protected:
    // Waits 2^exponent seconds after a failed start. The wait is cut into
    // short slices and ends early once the command word is -1, so a stop is
    // never held up by a long back-off (a signal alone could arrive between
    // the command test and the sleep).
    virtual void BackOffSleep(int exponent);
};

// CamThread_ControlClass: the pool holding the camera thread. Belongs to the
// daemon's main thread, like every ThreadControlArr.
class CamThread_ControlClass : public ThreadControlArr {
public:
    // Creates a Class_CamThread owned by this pool and starts it.
    // MALLOC_ERROR when it cannot be created, else ExecThread's code.
    int Add_Thread(DbPrintf_Class* pDB = nullptr) override;
};

// The daemon's camera thread pool.
extern CamThread_ControlClass g_Control_CamThread;

#endif
