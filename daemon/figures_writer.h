#ifndef OSTREL_DAEMON_FIGURES_WRITER_H
#define OSTREL_DAEMON_FIGURES_WRITER_H

#include "net/thread_control.h"

class Figures_Class;

// The figures file "mem/Ostrel_NN.figures", beside the pid file: the
// daemon's figures (common/figures.h) as name=value lines, rewritten once a
// second while the daemon runs and removed when it stops. Each writing goes
// to "<file>.tmp" and is renamed over the file, so a reader always finds a
// whole file. Nothing of the system reads it; ostrel-ctl check and
// ostrel-fleet do. Failures to write are silent: the figures never change
// what the daemon logs or does.

// Pictures and bytes per second over the last few writings.
class FigureRates {
public:
    static constexpr int SAMPLES = 6;  // five seconds at one writing a second

    // Records the counters at monotonic time monoUs (microseconds).
    void Add(long long monoUs, unsigned long long pictures, unsigned long long bytes);
    // Rates between the oldest and the newest sample kept; 0 with fewer
    // than two samples.
    double PicturesPerSecond() const;
    double BytesPerSecond() const;

private:
    struct Sample {
        long long mono;
        unsigned long long pictures, bytes;
    };
    double Rate(unsigned long long Sample::*field) const;
    Sample m_Samples[SAMPLES] = {};
    int m_nCount = 0;
    int m_nNext = 0;
};

// What the figures file says besides the counters.
struct FiguresContext {
    int pid;
    int channel;
    long long wallUs;    // this writing's wall-clock time (shown as such)
    long long monoUs;    // the same moment on the monotonic clock (for ages)
    int viewer;          // g_flagLoginUserExist
    int connectState;    // g_ConnectState
    double picturesPerSecond;
    double bytesPerSecond;
};

// Writes the figures file's text into buf (size bytes, always terminated).
// Returns the text's length, or -1 when it did not fit.
int FormatFigures(const Figures_Class& figures, const FiguresContext& context, char* buf, int size);

// Writes text to path through "<path>.tmp" and a rename, mode 0666 like
// every file the daemon writes. SUCCESS, or CANNOT_FILEOPEN / WRITE_FAILED
// (the temporary file is then removed).
int WriteFileWhole(const char* path, const char* text, int length);

// FiguresWriter_Thread: writes the figures file at once and then once a
// second until its stop, then removes the file.
class FiguresWriter_Thread : public ThreadControlElement {
public:
    static constexpr long long PERIOD_USEC = 1000000;
    static constexpr int PATH_SIZE = 64;
    static constexpr const char* THREAD_NAME = "ostrel-figures";

    FiguresWriter_Thread();
    int ThreadMain(DbPrintf_Class* pDB) override;

    // Writes the file once from g_Figures and the shared words. Returns
    // WriteFileWhole's code.
    int WriteOnce();

    char m_strPath[PATH_SIZE];

private:
    FigureRates m_Rates;
};

// The pool holding the figures writer. Main thread only.
class FiguresWriter_ControlClass : public ThreadControlArr {
public:
    // Starts a writer of "mem/Ostrel_NN.figures" for channel NN.
    int Add_Writer(int channel, DbPrintf_Class* pDB = nullptr);
};

// The daemon's figures writer pool.
extern FiguresWriter_ControlClass g_FiguresWriter;

#endif
