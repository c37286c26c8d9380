// Bounds the memory of the messages that wait for an endpoint's handlers. Internal.
//
// GIO reads all that the bus has for the process and keeps it until the main loop comes to it, so
// whoever sends faster than the handlers work makes the process grow. Here a message counts from
// the moment when GIO has read it until GIO lets go of it: when its handler has returned, or when
// it is answered. What is over the bound is refused in GIO's thread and reaches no main loop.
#ifndef PELMAR_INTAKE_H
#define PELMAR_INTAKE_H

#include <cstddef>
#include <functional>
#include <string>

#include "gio-handles.h"

class Intake {
public:
    // Counts the calls and signals for the object. A refused call is answered with an error, a
    // refused signal is dropped; `refusing` is called with the first of them, in GIO's thread, and
    // again with the first one after everything that waited was dealt with. One message is always
    // let in, of whatever size.
    Intake(GDBusConnection* connection, std::string object_path, std::size_t most_waiting,
           std::function<void()> refusing);
    ~Intake();
    Intake(const Intake&) = delete;
    Intake& operator=(const Intake&) = delete;

private:
    const GObjectPtr<GDBusConnection> m_connection;
    guint m_filter;
};

#endif
