#ifndef OSTREL_FIFO_FRAME_FIFO_H
#define OSTREL_FIFO_FRAME_FIFO_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

class DbPrintf_Class;

// One slot of the ring: a picture and the option record that describes it.
// Allocated zero-filled by the FIFO; both buffers are owned by the slot and
// live from Setup to Cleanup.
struct _StrBuffer {
    int nDataSize_Video;   // bytes of the current picture
    char* pBuffer_Video;   // m_nBufferSize_Video bytes
    int nDataSize_Option;  // bytes of the option record
    char* pBuffer_Option;  // nBufferSize_Option bytes
};

// What a reader was given.
struct _StrOutInfo {
    long long lnDataNo;             // data number actually delivered
    long long lnDataNo_PublicTop;   // oldest readable number at the request
    long long lnDataNo_PublicTail;  // newest committed number at the request
    int nDataSize_Video;            // picture bytes of the delivered frame
    int nDataSize_Option;           // option bytes of the delivered frame
};

// CMFifo: a ring of L + W fixed-size frame slots between one writer (the
// camera thread) and any number of readers (the control-port threads).
//
// Every committed frame gets the next data number (0, 1, 2, ...; numbers
// never go back while the FIFO is set up). The readable range [Top, Tail]
// holds at most L frames; the W further slots form a write-only zone, so
// the slot being written (number Input = Tail + 1) is never one a reader is
// given. The slot of number n is n mod (L + W).
//
// Thread-safety: the mutex guards only the three data numbers. Frame bytes
// are written and read without it; safety comes from the write-only zone:
// a frame handed to a reader (copied by GetData or borrowed by GetData2)
// is not overwritten until the writer has started W more frames after the
// current one. A reader must be done with a borrowed picture within that
// window (four frame periods with the daemon's 2 + 4 slots).
//
// Writer operations (InputData*) may be called by one thread only. Setup and
// Cleanup must not run concurrently with any other operation.
//
// Every operation returns a return code (common/return_codes.h). All except
// SetLog, Setup, Cleanup and GetTopTailDataNo return NOT_INITIALIZE before
// Setup. The ring's length is fixed from Setup to Cleanup.
class CMFifo {
public:
    CMFifo();
    virtual ~CMFifo();

    CMFifo(const CMFifo&) = delete;
    CMFifo& operator=(const CMFifo&) = delete;

    // Diagnostics go to pDB with the given level (0 silences them). The log
    // must outlive the FIFO's use. Always 1.
    int SetLog(DbPrintf_Class* pDB, int nLevel);

    // Allocates the ring: L >= 1 readable frames, W >= 2 write-only slots,
    // each slot with the given buffer sizes (both >= 1). The fifth argument
    // is accepted and ignored. ALREADY_INITIALIZE, INVALID_ARGUMENT or
    // SYS_FUNC_ERROR on failure; then call Cleanup.
    int Setup(int nLength_Fifo, int nLength_WriteOnlyZone, int nBufferSize_Video, int nBufferSize_Option, int nChannel);
    // Frees everything; safe to call twice and after a failed Setup.
    // Returns 1.
    int Cleanup();

    // --- writer side (one thread) -----------------------------------------
    // Empties the slot being written (Input). Data numbers do not move.
    int InputDataStart();
    // The slot being written: its video buffer (*pBuf), the capacity
    // (*nBufSize) and the bytes already in it (*nDataSize). The writer may
    // fill the buffer in place and then pass that address to InputData.
    int InputDataGet(char** pBuf, int* nBufSize, int* nDataSize);
    // Appends nInDataSize_Video picture bytes. When pInData_Video is exactly
    // the end of the picture in the slot (the bytes were written in place),
    // nothing is copied. DATA_LARGE_THEN_BUF when they would not fit.
    int InputData(char* pInData_Video, int nInDataSize_Video);
    // Removes bytes from the end of the picture; the picture must keep at
    // least one byte (use InputDataCancel to empty it).
    int InputDataDelete(int nDeleteSize);
    // Stores the option record and commits the frame under the next data
    // number. Nothing is committed on failure.
    int InputDataFinish(char* pInData_Option, int nInDataSize_Option);
    // Abandons the frame being written (same clearing as InputDataStart).
    int InputDataCancel();

    // --- reader side (any thread) -----------------------------------------
    // Oldest and newest readable numbers. CHANNEL_NO_DATA before the first
    // commit. Does not test set-up: call only while set up.
    int GetTopTailDataNo(long long* pDataNo_PublicTop, long long* pDataNo_PublicTail);
    // Copies the frame nearest to nDataNo (Top when below the range, Tail
    // when above it) into the caller's buffers and describes it in
    // *pOutInfo. CHANNEL_NO_DATA before the first commit;
    // DATA_LARGE_THEN_BUF when a buffer is too small.
    int GetData(long long nDataNo, char* pOutMem_Video, int nOutMemSize_Video, char* pOutMem_Option,
                int nOutMemSize_Option, _StrOutInfo* pOutInfo);
    // As GetData, but lends the picture: *ppOutMem_Video points into the
    // slot, *pOutMemSize_Video receives the slot's capacity and the
    // picture's length is pOutInfo->nDataSize_Video. Only the option record
    // is copied. The pointer stays valid for the window described above.
    int GetData2(long long nDataNo, char** ppOutMem_Video, int* pOutMemSize_Video, char* pOutMem_Option,
                 int nOutMemSize_Option, _StrOutInfo* pOutInfo);

    // Blocks until a frame numbered lnDataNo or later has been committed, or
    // until the deadline passes, whichever comes first. Returns true when
    // the frame is there. Readers that would otherwise poll for the next
    // frame wait here: every commit wakes them. Call only while set up.
    bool WaitForDataNo(long long lnDataNo, std::chrono::steady_clock::time_point deadline);

    // True while the slot of frame lnDataNo has not been taken by the writer
    // for a later frame (the frame being written is below lnDataNo + L + W).
    // Bytes of a borrowed picture that were read before a call answering
    // true were read whole; a reader slower than the window above learns
    // here that the rest of its picture may be another frame's. Takes the
    // mutex, which orders the reader's reads before the writer's next start.
    bool FrameIntact(long long lnDataNo);

private:
    int AllocStrBuffer(_StrBuffer** pStrbuf, int nBufferSize_Video, int nBufferSize_Option);
    int FreeStrBuffer(_StrBuffer** pStrbuf);
    int CalcBufferNo(long long lnDataNo) const;
    int InputVideo(char* pInData_Video, int nInDataSize_Video);
    int DeleteVideo(int nInDeleteSize_Video);
    int InputOption(char* pInData_Option, int nInDataSize_Option);
    int ClearVideo();
    int ClearOption();
    bool SetUpOrLog(const char* pszNotSetUpLine);

    // Why Deliver refused a frame, with the figures the caller's log line
    // names; the caller logs it in its own words.
    struct DeliveryFault {
        enum Kind { kNone, kSlotMissing, kVideoTooLarge, kOptionTooLarge } eKind = kNone;
        int nSlot = 0;
        int nDataSize = 0;  // the slot's picture or option bytes
    };
    int Deliver(long long nDataNo, char* pOutMem_Video, int nOutMemSize_Video, char** ppOutMem_Video,
                int* pOutMemSize_Video, char* pOutMem_Option, int nOutMemSize_Option, _StrOutInfo* pOutInfo,
                DeliveryFault* pFault);

    // m_nSetup is read by every thread; the data numbers are changed under
    // m_Mutex but Tail is also tested before the lock, so they are atomics
    // (relaxed: the mutex orders them).
    std::atomic<int> m_nSetup{0};
    std::mutex m_Mutex;
    // Signalled after every commit (InputDataFinish), for WaitForDataNo.
    std::condition_variable m_Committed;
    int nLength_Fifo = 0;
    int nLength_WriteOnlyZone = 0;
    int m_nBufferSize_Video = 0;
    int nBufferSize_Option = 0;
    std::atomic<long long> m_lnDataNo_PublicTop{0};
    std::atomic<long long> m_lnDataNo_PublicTail{0};
    std::atomic<long long> m_lnDataNo_Input{0};
    _StrBuffer** m_ppFifo = nullptr;
    DbPrintf_Class* m_pDB = nullptr;
    int m_nLogLevel = 0;
};

// The daemon's frame FIFO, set up by start-up and cleaned up at shutdown.
extern CMFifo g_Fifo;

#endif
