// GIO's D-Bus calls, as the channel makes them, without a bus. They are this program's functions of
// the same names, so the channel that is linked into it calls them. The log goes nowhere.
//
// Every watch and subscription is remembered from its making to its release; a release of what is
// not there ends the process.
#ifndef PELMAR_FUZZ_BUS_DOUBLE_H
#define PELMAR_FUZZ_BUS_DOUBLE_H

#include <gio/gio.h>

#include <string>
#include <vector>

namespace bus_double {

// The channel's unique name.
extern const char* const OWN_NAME;

// What RequestName answers next, and whether the release gets an answer; 0: the request fails.
void AnswerRequest(unsigned code, bool release_succeeds);
void FailProxies(bool fail);

// The suffixes of the names that were asked for since the last time.
std::vector<std::string> TakeRequested();

// The destinations of the signals that were emitted since the last time.
std::vector<std::string> TakeEmitted();

// The replies to method calls since the last time, as bytes.
std::vector<std::vector<char>> TakeReplies();

// Whom a watch or a subscription is for; empty: nobody has that id.
std::string WatchedBy(guint watch);
std::string SubscribedTo(guint subscription);

// How many watches, and subscriptions to partners, there are.
std::size_t Watches();
std::size_t PartnerSubscriptions();

// How many objects that the channel was given are not released.
int LiveObjects();

// Forgets everything, and frees what the channel is to leave behind.
void Reset();

}  // namespace bus_double

#endif
