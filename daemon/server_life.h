#ifndef OSTREL_DAEMON_SERVER_LIFE_H
#define OSTREL_DAEMON_SERVER_LIFE_H

class DbPrintf_Class;

// The running daemon: its threads, FIFO and pid file, the wait for a stop
// request, and the orderly stop. Main thread only, in this order:
// Server_Construct, MainWaitLoop (when construction succeeded),
// Server_Destruct.

// Control-port threads are clamped to this range.
constexpr int kMinControlPortThreads = 1;
constexpr int kMaxControlPortThreads = 10;

// Sets up the frame FIFO (a failure is logged and the threads start without
// one), hands the control port's listening socket to the control-port pool,
// starts the clamped number of control-port threads, the one camera thread
// and the figures writer (daemon/figures_writer.h), and writes the pid file
// "mem/Ostrel_NN.pid". SUCCESS, or the pid
// file's failure code (the threads are then running: call Server_Destruct).
int Server_Construct(int numOfControlPortThread, DbPrintf_Class* pDB = nullptr);

// Returns SUCCESS once g_Program_Command is -1 or the states file has been
// deleted. Checks every 5 seconds; a signal that reaches the main thread
// ends the wait early.
int MainWaitLoop(DbPrintf_Class* pDB = nullptr);

// Stops the figures writer (which removes its file), the camera thread,
// then the control-port threads (2000 ms each), then frees the FIFO. SUCCESS.
int Server_Destruct(DbPrintf_Class* pDB = nullptr);

#endif
