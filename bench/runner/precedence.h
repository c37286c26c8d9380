/// @file
/// Ahead of what else the machine does; only root may.
#ifndef PELMAR_BENCH_PRECEDENCE_H
#define PELMAR_BENCH_PRECEDENCE_H

#include <sys/types.h>

/// For this process, and for those that it starts and names to GivePrecedenceTo. False where that
/// is not allowed.
bool TakePrecedence();

/// Linux weighs sessions before it weighs processes, and a child has a session of its own. To be
/// called when it runs; does nothing when this process has no precedence itself.
void GivePrecedenceTo(pid_t child);

#endif
