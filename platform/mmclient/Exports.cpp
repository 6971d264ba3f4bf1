// libxalmm's C interface: the messaging client over a modem manager.

#include "mmclient/XalMm.h"
#include "wire/ClientTable.h"

WIRE_EXPORT_CLIENT_TABLE(xalmm::clientTable())
