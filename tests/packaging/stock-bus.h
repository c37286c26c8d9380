/// @file
/// A bus with the machine's own system.conf, and users of its own.
#ifndef PELMAR_TESTS_STOCK_BUS_H
#define PELMAR_TESTS_STOCK_BUS_H

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "bus-actor.h"
#include "child-process.h"

/// A user, and a group of the same name and number.
struct Account {
    std::string name;
    uid_t id;
};

/// Users that exist in this process and its children alone: they see another /etc/passwd. Throws
/// Unavailable where that is not possible.
class PrivateAccounts {
public:
    struct Unavailable {
        std::string reason;
    };

    PrivateAccounts(const std::string& folder, const std::vector<Account>& accounts);
};

/// A daemon whose configuration is the machine's stock one: only where it listens, how it is
/// started and which folder of policies it reads are its own. While it lives,
/// DBUS_SYSTEM_BUS_ADDRESS names it.
class StockBus {
public:
    enum class Daemon { dbus_daemon, dbus_broker };

    static bool Exists(Daemon daemon);

    /// `folder` is for its files; the policies are read from system.d in it.
    StockBus(Daemon daemon, const std::string& folder);

    /// A connection of that user.
    std::unique_ptr<BusActor> Connect(const Account& account) const;

    /// What a command line needs in front of it to run as that user.
    static std::vector<std::string> RunAs(const Account& account);

private:
    std::string m_address;
    std::shared_ptr<void> m_journal;
    std::unique_ptr<ChildProcess> m_daemon;
};

#endif
