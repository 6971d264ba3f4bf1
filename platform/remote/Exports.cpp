// libxalremote's C interface: the messaging client over the modem
// service's socket.

#include "remote/XalRemote.h"
#include "wire/ClientTable.h"

WIRE_EXPORT_CLIENT_TABLE(xalremote::clientTable())
