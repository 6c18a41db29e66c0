#ifndef OSTREL_CONTROL_CONTROL_ROUTES_H
#define OSTREL_CONTROL_CONTROL_ROUTES_H

class ControlPort_Connection;
class DbPrintf_Class;
class OneToken_Class;

// The control port's routing table: one row per protocol, mapping the file
// name of the request URI (the text from its last slash, compared exactly)
// to the protocol's handler. A new endpoint is a new row and its own file.
//
// A handler answers the request read on the connection and returns
// HTTP_CONNECTIONCLOSE to close the connection after the answer, or SUCCESS
// to read the next request when the request asked for keep-alive.
struct ControlPort_Route {
    const char* path;
    int (*handler)(ControlPort_Connection& conn, DbPrintf_Class* pDB);
};

// The row whose path equals fileName, null when none does. Any thread.
const ControlPort_Route* ControlPort_FindRoute(const OneToken_Class& fileName);

#endif
