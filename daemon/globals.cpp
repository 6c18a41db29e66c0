#include "daemon/globals.h"

#include "common/string_buf.h"

// Order of construction. Within this file the objects are constructed in the
// order written here and destroyed in reverse. Objects defined in other
// libraries (states file, directory and listening port in conf/, g_Fifo in
// fifo/, g_Control_CamThread and g_configInfoIOClass in camera/) have no
// guaranteed order relative to these. That does not matter: no constructor
// reads another process-wide object, every one of them is inert until main()
// uses it, and by the time the destructors run the daemon has already
// stopped its threads (Server_Destruct), so a pool's destructor finds no
// worker still touching the FIFO, the configuration or the listening socket.
ControlPort_ServerThread_ControlClass g_PiPPControlPort;
OneToken_Class g_PPD_Type_Name;

int g_StartUpLevel = 0;
char g_ProccessName[256] = {};
StringBuf_Class* g_HTTPD_ResponseBuf = nullptr;
int g_NullFD = -1;
