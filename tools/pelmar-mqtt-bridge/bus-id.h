// Which bus this process is on.
#ifndef PELMAR_BRIDGE_BUS_ID_H
#define PELMAR_BRIDGE_BUS_ID_H

#include <optional>
#include <string>

// The id that the daemon made when it started, the same for all its clients; nothing, with the
// reason in `error`, when it cannot be reached. Keeps no connection.
std::optional<std::string> AskBusId(std::string& error);

#endif
