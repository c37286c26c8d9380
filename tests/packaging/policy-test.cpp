// What the files that pelmar-policy makes allow, and what they do not, on both bus daemons with
// their stock configuration. Channel "alpha" is given to two users, "beta" to two groups.

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <optional>

#include "main-loop.h"
#include "names.h"
#include "stock-bus.h"

namespace {

using Daemon = StockBus::Daemon;

const Account ALPHA_SERVICE{"pelmar-alpha-service", 54321};
const Account ALPHA_CLIENT{"pelmar-alpha-client", 54322};
const Account BETA_SERVICE{"pelmar-beta-service", 54323};
const Account BETA_CLIENT{"pelmar-beta-client", 54324};
const Account STRANGER{"pelmar-stranger", 54325};
const Account ROOT{"root", 0};

constexpr const char* DENIED = "org.freedesktop.DBus.Error.AccessDenied";
constexpr const char* NO_SUCH_METHOD = "org.freedesktop.DBus.Error.UnknownMethod";
constexpr const char* DIRECT_PATH = "org.vaska.pelmar.DirectPath1";
constexpr const char* PROPERTIES = "org.freedesktop.DBus.Properties";

void MakePolicy(const std::string& folder, const std::string& file, const std::string& arguments)
{
    const std::string command = std::string(PELMAR_POLICY) + " " + arguments + " --output " +
                                folder + "/system.d/" + file + ".conf";
    if (system(command.c_str()) != 0)
        throw std::runtime_error("failed: " + command);
}

std::vector<std::string> StageNames(const std::string& channel, const std::string& side)
{
    const std::string base = names::Base(channel) + side;
    return {base + names::SYN, base + names::SYN_ACK, base + names::ACK};
}

// "owner", or the D-Bus name of the error.
std::string Own(BusActor& actor, const std::string& name)
{
    try {
        return actor.Acquire(name) == 1 && actor.Release(name) == 1 ? "owner" : "not owner";
    } catch (const std::runtime_error& error) {
        const bool denied = std::string(error.what()).find(DENIED) != std::string::npos;
        return denied ? DENIED : error.what();
    }
}

// "reply", or the D-Bus name of the error. The callee has to be another process.
std::string Call(const BusActor& actor, const std::string& destination, const std::string& channel,
                 const std::string& interface, const std::string& method, GVariant* arguments)
{
    GError* error = nullptr;
    GVariant* reply = g_dbus_connection_call_sync(
        actor.Connection(), destination.c_str(), names::Path(channel).c_str(), interface.c_str(),
        method.c_str(), arguments, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);
    if (reply != nullptr) {
        g_variant_unref(reply);
        return "reply";
    }
    gchar* name = g_dbus_error_get_remote_error(error);
    std::string text(name != nullptr ? name : error->message);
    g_free(name);
    g_error_free(error);
    return text;
}

std::string CallSend(const BusActor& actor, const std::string& destination,
                     const std::string& channel)
{
    return Call(actor, destination, channel, names::INTERFACE, "Send",
                BusActor::Body(BytesOf("a")));
}

std::string CallGetAll(const BusActor& actor, const std::string& destination,
                       const std::string& channel)
{
    return Call(actor, destination, channel, PROPERTIES, "GetAll",
                g_variant_new("(s)", names::INTERFACE.c_str()));
}

// As a client does it, but without a socket.
std::string CallOpen(const BusActor& actor, const std::string& destination,
                     const std::string& channel)
{
    return Call(actor, destination, channel, DIRECT_PATH, "Open", nullptr);
}

// A real channel in a process of that user.
class Peer : public ChildProcess {
public:
    Peer(const Account& account, const std::string& program, const std::string& channel)
        : ChildProcess(CommandLine(account, program, channel)), m_name(WaitForLine("name "))
    {
    }

    const std::string& Name() const { return m_name; }

private:
    static std::vector<std::string> CommandLine(const Account& account, const std::string& program,
                                                const std::string& channel)
    {
        std::vector<std::string> words = StockBus::RunAs(account);
        words.insert(words.end(), {program, channel});
        return words;
    }

    std::string m_name;
};

class APolicy : public testing::TestWithParam<Daemon> {
protected:
    APolicy()
    {
        if (mkdtemp(m_folder.data()) == nullptr)
            throw std::runtime_error("mkdtemp: cannot make " + m_folder);
        // The other users have to reach the socket, and the daemon's the policies.
        chmod(m_folder.c_str(), 0755);
        std::filesystem::create_directory(m_folder + "/system.d");
    }

    ~APolicy() override
    {
        m_bus.reset();
        std::filesystem::remove_all(m_folder);
    }

    void SetUp() override
    {
        if (!StockBus::Exists(GetParam()))
            GTEST_SKIP() << "dbus-broker-launch and systemd-socket-activate are not installed";
        try {
            const PrivateAccounts accounts(
                m_folder, {ALPHA_SERVICE, ALPHA_CLIENT, BETA_SERVICE, BETA_CLIENT, STRANGER});
            MakePolicy(m_folder, "alpha",
                       "--channel alpha --service-user " + ALPHA_SERVICE.name + " --client-user " +
                           ALPHA_CLIENT.name);
            MakePolicy(m_folder, "beta",
                       "--channel beta --service-group " + BETA_SERVICE.name + " --client-group " +
                           BETA_CLIENT.name);
            m_bus.emplace(GetParam(), m_folder);
        } catch (const PrivateAccounts::Unavailable& unavailable) {
            GTEST_SKIP() << unavailable.reason;
        }
    }

    std::unique_ptr<BusActor> Connect(const Account& account) { return m_bus->Connect(account); }

    void ExpectTrafficBothWays(const Account& service_account, const Account& client_account,
                               const std::string& channel)
    {
        Peer service(service_account, PELMAR_PEER_SERVICE, channel);
        Peer client(client_account, PELMAR_PEER_CLIENT, channel);
        EXPECT_EQ(service.WaitForLine("ready "), client.Name());
        EXPECT_EQ(client.WaitForLine("ready "), service.Name());

        const auto expect_from = [](Peer& from, Peer& to) {
            from.WriteLine("send " + to.Name() + " 0a0b");
            EXPECT_EQ(from.WaitForLine("reply "), "0b0a");
            from.WriteLine("notify 0c");
            EXPECT_EQ(to.WaitForLine("notification "), "0c");
        };
        expect_from(service, client);
        expect_from(client, service);

        EXPECT_EQ(CallGetAll(*Connect(service_account), client.Name(), channel), "reply");
        EXPECT_EQ(CallGetAll(*Connect(client_account), service.Name(), channel), "reply");
        // A plain channel has none.
        EXPECT_EQ(CallOpen(*Connect(client_account), service.Name(), channel), NO_SUCH_METHOD);
        EXPECT_EQ(CallOpen(*Connect(service_account), client.Name(), channel), NO_SUCH_METHOD);
    }

    std::string m_folder =
        (std::filesystem::temp_directory_path() / "pelmar-policy-XXXXXX").string();
    std::optional<StockBus> m_bus;
};

TEST_P(APolicy, ConnectsItsTwoUsersForTrafficBothWays)
{
    ExpectTrafficBothWays(ALPHA_SERVICE, ALPHA_CLIENT, "alpha");
}

TEST_P(APolicy, LetsItsTwoUsersGoPastTheBus)
{
    const auto start = [](const Account& account, const std::string& role) {
        std::vector<std::string> words = StockBus::RunAs(account);
        words.insert(words.end(), {PELMAR_ENDPOINT_PEER, role, "alpha"});
        auto process = std::make_unique<ChildProcess>(words);
        process->WaitForLine("on ");
        return process;
    };
    const auto service = start(ALPHA_SERVICE, "service");
    const auto client = start(ALPHA_CLIENT, "client");
    for (const auto& process : {service.get(), client.get()}) {
        process->WaitForLine("ready ");
        process->WriteLine("way");
        EXPECT_EQ("direct", process->WaitForLine("way "));
    }
}

TEST_P(APolicy, ConnectsMembersOfItsTwoGroupsForTrafficBothWays)
{
    ExpectTrafficBothWays(BETA_SERVICE, BETA_CLIENT, "beta");
}

TEST_P(APolicy, LetsEachSideOwnItsOwnStageNamesOnly)
{
    const auto service = Connect(ALPHA_SERVICE);
    const auto client = Connect(ALPHA_CLIENT);
    for (const std::string& name : StageNames("alpha", "_SERVICE")) {
        EXPECT_EQ(Own(*service, name), "owner") << name;
        EXPECT_EQ(Own(*client, name), DENIED) << name;
    }
    for (const std::string& name : StageNames("alpha", "_CLIENT")) {
        EXPECT_EQ(Own(*client, name), "owner") << name;
        EXPECT_EQ(Own(*service, name), DENIED) << name;
    }
    EXPECT_EQ(Own(*service, names::Base("alpha") + "_SERVICE"), DENIED);
}

TEST_P(APolicy, RefusesOthersTheStageNames)
{
    for (const Account& account : {STRANGER, ROOT, BETA_SERVICE, BETA_CLIENT}) {
        const auto actor = Connect(account);
        for (const char* side : {"_SERVICE", "_CLIENT"})
            for (const std::string& name : StageNames("alpha", side))
                EXPECT_EQ(Own(*actor, name), DENIED) << name << " by " << account.name;
    }
}

TEST_P(APolicy, RefusesTheCallsOfOthers)
{
    const Peer service(ALPHA_SERVICE, PELMAR_PEER_SERVICE, "alpha");
    const Peer client(ALPHA_CLIENT, PELMAR_PEER_CLIENT, "alpha");
    for (const Account& account : {STRANGER, ROOT, BETA_SERVICE, BETA_CLIENT}) {
        const auto actor = Connect(account);
        for (const std::string& destination : {service.Name(), client.Name()}) {
            EXPECT_EQ(CallSend(*actor, destination, "alpha"), DENIED) << account.name;
            EXPECT_EQ(CallGetAll(*actor, destination, "alpha"), DENIED) << account.name;
            EXPECT_EQ(CallOpen(*actor, destination, "alpha"), DENIED) << account.name;
        }
    }
}

TEST_P(APolicy, RefusesItsOwnSidesEveryOtherCall)
{
    const Peer service(ALPHA_SERVICE, PELMAR_PEER_SERVICE, "alpha");
    const auto client = Connect(ALPHA_CLIENT);
    const std::string get = Call(*client, service.Name(), "alpha", PROPERTIES, "Get",
                                 g_variant_new("(ss)", names::INTERFACE.c_str(), "any"));
    EXPECT_EQ(get, DENIED);
    const std::string other =
        Call(*client, service.Name(), "alpha", names::INTERFACE, "Other", nullptr);
    EXPECT_EQ(other, DENIED);
    EXPECT_EQ(CallSend(*client, service.Name(), "beta"), DENIED);
}

// Its rules go by the object's path, which all ends of a channel share.
TEST_P(APolicy, LetsTheClientsOfAChannelCallEachOther)
{
    const Peer client(ALPHA_CLIENT, PELMAR_PEER_CLIENT, "alpha");
    EXPECT_EQ(CallSend(*Connect(ALPHA_CLIENT), client.Name(), "alpha"), "reply");
}

TEST_P(APolicy, RefusesTheSignalsOfOthers)
{
    const auto listener = Connect(ALPHA_SERVICE);
    listener->Listen("alpha");
    listener->Settle();
    const auto emit = [&listener](BusActor& actor, const std::string& text) {
        for (const std::string& destination : {std::string(), listener->UniqueName()})
            actor.Emit(destination, names::Path("alpha"), "SendSignal",
                       BusActor::Body(BytesOf(text)));
        actor.Settle();
    };
    for (const Account& account : {STRANGER, ROOT, BETA_SERVICE, BETA_CLIENT})
        emit(*Connect(account), account.name);
    emit(*Connect(ALPHA_CLIENT), "client");

    IterateUntil([&listener] { return listener->Heard().size() >= 2; }, "the client's two signals");
    for (const Bytes& heard : listener->Heard())
        EXPECT_EQ(std::string(heard.begin(), heard.end()), "client");
}

INSTANTIATE_TEST_SUITE_P(Bus, APolicy, testing::Values(Daemon::dbus_daemon, Daemon::dbus_broker),
                         [](const testing::TestParamInfo<Daemon>& bus) {
                             return bus.param == Daemon::dbus_daemon ? "DbusDaemon" : "DbusBroker";
                         });

// dbus-broker has no limits to raise.
class AFileOfLimits : public APolicy {
protected:
    // How many of the matches are granted.
    static int AddMatches(const BusActor& actor, int count)
    {
        int granted = 0;
        for (int i = 0; i < count; ++i) {
            const std::string rule = "type='signal',arg0='" + std::to_string(i) + "'";
            GVariant* reply = g_dbus_connection_call_sync(
                actor.Connection(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                "org.freedesktop.DBus", "AddMatch", g_variant_new("(s)", rule.c_str()), nullptr,
                G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
            if (reply == nullptr)
                break;
            ++granted;
            g_variant_unref(reply);
        }
        return granted;
    }
};

TEST_P(AFileOfLimits, MakesRoomForThreeMatchRulesAPartner)
{
    constexpr int partners = 300;
    EXPECT_EQ(AddMatches(*Connect(ALPHA_SERVICE), 3 * partners), 512);
    MakePolicy(m_folder, "limits", "--limits " + std::to_string(partners));
    m_bus.reset();
    m_bus.emplace(GetParam(), m_folder);
    EXPECT_EQ(AddMatches(*Connect(ALPHA_SERVICE), 3 * partners), 3 * partners);
}

INSTANTIATE_TEST_SUITE_P(Bus, AFileOfLimits, testing::Values(Daemon::dbus_daemon),
                         [](const testing::TestParamInfo<Daemon>&) { return "DbusDaemon"; });

}  // namespace
