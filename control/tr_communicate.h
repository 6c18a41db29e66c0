#ifndef OSTREL_CONTROL_TR_COMMUNICATE_H
#define OSTREL_CONTROL_TR_COMMUNICATE_H

class ControlPort_Connection;
class DbPrintf_Class;

// TrCommunicate_Protocol: "/trcom.cgi" on the control port. The recording
// system tells the daemon that its configuration changed (notice_update) or
// that the post-alarm term starts again (reset_postterm). Every request is
// answered with status 200 and a fixed HTML body; the outcome travels in the
// Query_Result header line. Served only to the channel's own address.
//
// Shared state: the post-alarm words of camera/shared_state.h, the channel
// configuration g_configInfoIOClass and g_Program_Command (set to -1 when a
// re-read configuration is unusable). An object lives for one request on
// the worker's own thread.
class TrCommunicate_Protocol {
public:
    // Node_Id of the answer.
    static constexpr int kNodeId = 16777473;

    explicit TrCommunicate_Protocol(ControlPort_Connection& conn) : m_Conn(conn) {}

    // The routing table's handler: TrCommunicate_Protocol(conn)
    // .DoCommand_TrCommunicate.
    static int Handle(ControlPort_Connection& conn, DbPrintf_Class* pDB);

    // Checks, runs the command and answers status 200 with the result in
    // four header lines; returns HTTP_CONNECTIONCLOSE.
    int DoCommand_TrCommunicate(DbPrintf_Class* pDB);
    // Re-reads the channel configuration; on any failure asks the daemon to
    // stop (g_Program_Command = -1). Returns the reader's code.
    int DoCommand_TrCommunicate__notice_update(DbPrintf_Class* pDB);
    // Restarts the post-alarm term's sum and stop flag. SUCCESS.
    int DoCommand_TrCommunicate__reset_postterm(DbPrintf_Class* pDB);

private:
    ControlPort_Connection& m_Conn;
};

#endif
