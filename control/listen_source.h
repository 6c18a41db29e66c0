#ifndef OSTREL_CONTROL_LISTEN_SOURCE_H
#define OSTREL_CONTROL_LISTEN_SOURCE_H

// ControlPort_ListenSource: where a control-port worker takes its
// connections from. The pool of workers implements it; the worker knows it
// only through this interface, so the worker does not depend on the pool
// that creates it.
class ControlPort_ListenSource {
public:
    virtual ~ControlPort_ListenSource() = default;

    // The listening descriptor, -1 when there is none. Any thread.
    virtual int GetListenFd() const = 0;
};

#endif
