#ifndef OSTREL_CAMERA_SHARED_STATE_H
#define OSTREL_CAMERA_SHARED_STATE_H

#include <sys/time.h>

#include <atomic>

// Process-wide words shared by the control-port threads and the camera
// thread without a lock. The design expects one viewer whose requests come
// one after another; each word is read and written whole. They are relaxed
// atomics: no ordering between them is relied upon, only that no read sees
// a torn value.
//
// They are C++17 inline variables, so each is defined exactly once in the
// program whichever libraries include this header; no library has to link
// another for them.

// Data number of the next frame to hand to the logged-in viewer. Reset by
// each login (to the FIFO's tail + 1, or 0 when the FIFO is empty) and moved
// past every delivered frame.
inline std::atomic<long long> g_NextDataID{0};

// 1 while a viewer is logged in, 0 otherwise. The camera thread holds the
// camera stream open only while it is 1.
inline std::atomic<int> g_flagLoginUserExist{0};

// 1 while the camera thread is receiving frames (or the camera refused a
// login), 0 when it is not. Written by the camera thread, read by get_image.
inline std::atomic<int> g_ConnectState{1};

// Reference time of the post-alarm term, set at login. A timeval cannot be
// stored atomically as two words without a torn read, so it is kept as one
// atomic count of microseconds on the monotonic clock (GetMonotonicTime;
// 0: never set), so that a step of the wall clock does not shift the term. Use the two
// accessors below instead of touching the word.
inline std::atomic<long long> g_strNowTimePT{0};

// Microseconds accumulated in the current post-alarm term (monotonic).
inline std::atomic<long long> g_lnDiffTimeSumPT{0};

// 1 once the stop request of the current post-alarm term has been sent.
inline std::atomic<int> g_flgAlreadySendStop{0};

// Stores tv as the post-alarm reference time.
inline void SetNowTimePT(const timeval& tv)
{
    g_strNowTimePT.store(static_cast<long long>(tv.tv_sec) * 1000000LL + tv.tv_usec, std::memory_order_relaxed);
}

// The post-alarm reference time as a timeval ({0, 0} until the first login).
inline timeval GetNowTimePT()
{
    long long us = g_strNowTimePT.load(std::memory_order_relaxed);
    timeval tv;
    tv.tv_sec = static_cast<time_t>(us / 1000000LL);
    tv.tv_usec = static_cast<suseconds_t>(us % 1000000LL);
    return tv;
}

// The daemon's channel number (0..99), set by start-up before any worker
// thread runs and read by notice_update and the schedule server client.
inline std::atomic<int> g_channelNum{0};

#endif
