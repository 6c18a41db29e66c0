#ifndef OSTREL_DAEMON_PROGRAM_MAIN_H
#define OSTREL_DAEMON_PROGRAM_MAIN_H

// The program's entry: argument checks, the log "log/Ostrel_NN", signal
// set-up, then the CGI front end (when REQUEST_METHOD is set) or the
// command-line switch (-StartUp, -StartUp_NonDeamon, -GetConfigTemplate).
// The outcome is told only on standard output (and the log); the result is
// always 0, the process's exit status. Called once, from main, before any
// thread exists. After a forking start it returns in each of the processes
// that come out of the fork.
int ProgramMain(int argc, char** argv);

#endif
