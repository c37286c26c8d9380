/// @file
/// Waiting for the bus and for orders at once, for the libraries without a main loop of their own.
#ifndef PELMAR_BENCH_POLL_LOOP_H
#define PELMAR_BENCH_POLL_LOOP_H

#include <poll.h>
#include <unistd.h>

/// `work` deals with what there is on the bus and returns the poll events it waits for next; `obey`
/// reads an order and returns false when it is the last.
template <typename Work, typename Obey>
void RunPollLoop(int bus, Work work, Obey obey)
{
    for (;;) {
        pollfd ready[] = {{bus, static_cast<short>(work()), 0}, {STDIN_FILENO, POLLIN, 0}};
        poll(ready, 2, -1);
        if (ready[1].revents != 0 && !obey())
            return;
    }
}

#endif
