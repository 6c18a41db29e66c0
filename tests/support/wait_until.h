#ifndef OSTREL_TESTS_SUPPORT_WAIT_UNTIL_H
#define OSTREL_TESTS_SUPPORT_WAIT_UNTIL_H

#include <functional>

// The tests' one wait for something other threads or processes do: polls
// pred every 2 ms until it holds (true) or timeoutMs pass (false). The
// default bound is generous (sanitizer builds on a busy machine); a test
// asserts the result rather than sleeping for an event.
bool WaitUntil(const std::function<bool()>& pred, int timeoutMs = 20000);

#endif
