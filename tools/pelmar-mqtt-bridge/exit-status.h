// How the bridge ends. The numbers are those of pelmarctl.
#ifndef PELMAR_BRIDGE_EXIT_STATUS_H
#define PELMAR_BRIDGE_EXIT_STATUS_H

enum ExitStatus {
    STATUS_OK = 0,
    STATUS_FAILURE = 1,
    STATUS_USAGE = 2,
    STATUS_REFUSED = 5,
    STATUS_BUS = 6,
    STATUS_INTERRUPTED = 130,
};

#endif
