/// @file
/// How the peers on D-Bus find each other.
#ifndef PELMAR_BENCH_ON_THE_BUS_H
#define PELMAR_BENCH_ON_THE_BUS_H

#include <string>

#include "peer.h"

namespace peer {

constexpr const char* OBJECT_PATH = "/org/vaska/pelmar/Bench";
constexpr const char* INTERFACE = "org.vaska.pelmar.Bench";

inline std::string BusName(const Arguments& arguments)
{
    return "org.vaska.pelmar.Bench." + arguments.address;
}

/// Signals go to all who ask the bus for them, once each.
inline std::string MatchRule(const Arguments& arguments)
{
    return "type='signal',sender='" + BusName(arguments) + "',member='Notify'";
}

}  // namespace peer

#endif
