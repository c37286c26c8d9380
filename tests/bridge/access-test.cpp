// Who gets in: options, logins and certificates, and how the bridge ends when it does not.

#include <gtest/gtest.h>

#include <fstream>

#include "across-machines.h"

namespace {

using Arguments = std::vector<std::string>;

class TheCommandLine : public testing::Test {
protected:
    void ExpectUsageError(const Arguments& arguments, const std::string& text)
    {
        Arguments command{PELMAR_MQTT_BRIDGE};
        command.insert(command.end(), arguments.begin(), arguments.end());
        Program program(m_bus, command);
        EXPECT_NO_THROW(program.WaitForLine(text)) << text;
        EXPECT_EQ(2, program.WaitForEnd()) << text;
    }

    TestBus m_bus;
    TemporaryFolder m_folder;
};

TEST_F(TheCommandLine, SaysWhatIsWrong)
{
    ExpectUsageError({}, "--attach: no channel to carry");
    ExpectUsageError({"--attach", "9x"}, "--attach: channel name '9x' begins with a digit");
    ExpectUsageError({"--attach", "x", "x"}, "--attach: the channel x is named twice");
    ExpectUsageError({"--attach", "x", "--offer", "x"},
                     "--offer: the channel x is attached and offered on one bus");
    ExpectUsageError({"--offer", "x", "--bogus"}, "The following argument was not expected");
    ExpectUsageError({"--offer", "x", "--qos", "3"}, "--qos: Value 3 not in range");
    ExpectUsageError({"--offer", "x", "--topic-prefix", "a/#"}, "--topic-prefix: 'a/#' cannot be");
    ExpectUsageError({"--offer", "x", "--ca", "/none"}, "--ca: cannot read '/none'");
    ExpectUsageError({"--offer", "x", "--cert", "/none"}, "--cert requires --key");
    ExpectUsageError({"--offer", "x", "--host", "broker.example"},
                     "--host: the connection to 'broker.example' would be neither encrypted");
    ExpectUsageError({"--offer", "x", "--host", "127.broker.example"},
                     "--host: the connection to '127.broker.example' would be neither encrypted");
    ExpectUsageError({"--offer", "x", "--host", ""}, "--host: the broker's name is empty");
    ExpectUsageError({"--offer", "x", "--user", ""}, "--user: the name is empty");
    ExpectUsageError({"--offer", "x", "--topic-prefix", "\xff"}, "--topic-prefix: '");
}

TEST_F(TheCommandLine, SaysWhatIsWrongWithAFile)
{
    const std::string config = m_folder.Write("config", "offr = \"x\"\n");
    ExpectUsageError({"--config", config}, config + ": there is no option 'offr'");
    ExpectUsageError({"--config", "/none"}, "/none was not readable");
    const std::string nested = m_folder.Write("nested", "config = \"other\"\n");
    ExpectUsageError({"--config", nested}, nested + ": ");
    const std::string sections = m_folder.Write("sections", "[broker]\nhost = \"x\"\n");
    ExpectUsageError({"--config", sections}, sections + ": there are no sections");
    ExpectUsageError({"--offer", "x", "--ca", m_folder.File("")},
                     "--ca: '" + m_folder.File("") + "' is a directory, not a file");
    ExpectUsageError({"--offer", "x", "--user", "u", "--password-file", m_folder.File("")},
                     "--password-file: '" + m_folder.File("") + "' is a directory, not a file");
    const std::string empty = m_folder.Write("empty", "\n");
    ExpectUsageError({"--offer", "x", "--user", "u", "--password-file", empty},
                     "--password-file: the first line of '" + empty);
    const std::string open = m_folder.Write("open", "secret\n");
    RunToEnd({"chmod", "644", open});
    ExpectUsageError({"--offer", "x", "--user", "u", "--password-file", open},
                     "--password-file: everybody can read '" + open + "': chmod o-r");
}

TEST_F(TheCommandLine, ShowsTheVersionAndTheHelp)
{
    Program version(m_bus, {PELMAR_MQTT_BRIDGE, "--version"});
    version.WaitForLine("pelmar-mqtt-bridge " PELMAR_VERSION);
    EXPECT_EQ(0, version.WaitForEnd());
    Program help(m_bus, {PELMAR_MQTT_BRIDGE, "--help"});
    help.WaitForLine("Exit status: 0 ended by SIGTERM");
    EXPECT_EQ(0, help.WaitForEnd());
}

TEST_F(TheCommandLine, NamesABusThatIsNotThere)
{
    Program program(m_bus, {PELMAR_MQTT_BRIDGE, "--offer", "demo", "--bus", "unix:path=/none"});
    program.WaitForLine("pelmar-mqtt-bridge[demo]: the system bus cannot be reached");
    EXPECT_EQ(6, program.WaitForEnd());
}

TEST_F(TheCommandLine, MayBeAFile)
{
    HaveOwnNetwork();
    const Broker broker;
    const std::string config = m_folder.Write(
        "config", "attach = [\"demo\"]\nhost = \"127.0.0.1\"\nport = " + broker.Port() +
                      "\nkeep-alive = 30\n");
    Program program(m_bus, {PELMAR_MQTT_BRIDGE, "--config", config});
    program.WaitForLine("pelmar-mqtt-bridge[demo]: connected to the broker");
    program.Signal(SIGINT);
    EXPECT_EQ(130, program.WaitForEnd());
}

// ---- Logins --------------------------------------------------------------------------------

class ABrokerWithUsers : public AcrossMachines {
protected:
    ABrokerWithUsers() : AcrossMachines(Settings()) {}

    static const TemporaryFolder& Folder()
    {
        static const TemporaryFolder folder;
        return folder;
    }

    // The set-up that docs/across-machines.md describes, for the channel of the tests.
    static std::string AccessOfTheDocument()
    {
        std::ifstream document(PELMAR_ACROSS_MACHINES);
        std::string access;
        bool inside = false;
        for (std::string line; std::getline(document, line);) {
            inside = line != "```" && (inside || line == "user machine-a");
            if (!inside)
                continue;
            if (const std::size_t channel = line.find("/digest/"); channel != std::string::npos)
                line.replace(channel, 8, "/demo/");
            access += line + "\n";
        }
        return access;
    }

    static std::string Settings()
    {
        const std::string users = Folder().File("users");
        RunToEnd({PELMAR_MOSQUITTO_PASSWD, "-c", "-b", users, "machine-a", "secret a"});
        RunToEnd({PELMAR_MOSQUITTO_PASSWD, "-b", users, "machine-b", "secret b"});
        const std::string access = Folder().Write("access", AccessOfTheDocument());
        return "allow_anonymous false\npassword_file " + users + "\nacl_file " + access + "\n";
    }

    static Arguments Login(const std::string& user, const std::string& password)
    {
        return {"--user", user, "--password-file", Folder().Write("password-" + user, password)};
    }
};

TEST_F(ABrokerWithUsers, LetsInWhoKnowsThePassword)
{
    Peer service(m_bus_a, "service");
    const Bridge attached = Attach(m_bus_a, Login("machine-a", "secret a\n"));
    const Bridge offering = Offer(m_bus_b, Login("machine-b", "secret b\n"));
    Peer client(m_bus_b, "client");
    WaitUntilWhole(client);
}

TEST_F(ABrokerWithUsers, EndsABridgeWithTheWrongPassword)
{
    Bridge bridge = Offer(m_bus_b, Login("machine-b", "wrong\n"));
    bridge.WaitFor("no connection to the broker 127.0.0.1 port " + m_broker.Port() +
                   ": the broker refused the connection: ");
    EXPECT_EQ(5, bridge.WaitForEnd());
}

TEST_F(ABrokerWithUsers, EndsABridgeThatDoesNotLogIn)
{
    Bridge bridge = Offer(m_bus_b);
    bridge.WaitFor("no connection to the broker");
    EXPECT_EQ(5, bridge.WaitForEnd());
}

TEST_F(ABrokerWithUsers, LeavesABridgeWithoutRightsToSayThatItIsNotAnswered)
{
    Peer service(m_bus_a, "service");
    const Bridge attached = Attach(m_bus_a, Login("machine-a", "secret a\n"));
    Bridge offering = Offer(m_bus_b, Login("machine-a", "secret a\n"));
    offering.WaitFor("the broker refused a message: ");
}

// ---- Certificates --------------------------------------------------------------------------

class ABrokerWithTls : public AcrossMachines {
protected:
    ABrokerWithTls() : AcrossMachines(Settings()) {}

    static const TemporaryFolder& Folder()
    {
        static const TemporaryFolder folder;
        return folder;
    }

    static void MakeAuthority(const std::string& name)
    {
        RunToEnd({"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
                  "-nodes", "-subj", "/CN=" + name, "-keyout", Folder().File(name + ".key"), "-out",
                  Folder().File(name + ".pem")});
    }
    static void MakeCertificate(const std::string& name, const std::string& subject)
    {
        const std::string request = Folder().File(name + ".csr");
        RunToEnd({"openssl", "req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
                  "-nodes", "-subj", "/CN=" + name, "-keyout", Folder().File(name + ".key"), "-out",
                  request});
        RunToEnd({"openssl", "x509", "-req", "-in", request, "-CA", Folder().File("ca.pem"),
                  "-CAkey", Folder().File("ca.key"), "-CAcreateserial", "-extfile",
                  Folder().Write(name + ".ext", "subjectAltName=" + subject + "\n"), "-out",
                  Folder().File(name + ".pem")});
    }

    static std::string Settings()
    {
        MakeAuthority("ca");
        MakeAuthority("other-ca");
        MakeCertificate("broker", "IP:127.0.0.1");
        MakeCertificate("machine", "DNS:machine");
        return "allow_anonymous true\ncafile " + Folder().File("ca.pem") + "\ncertfile " +
               Folder().File("broker.pem") + "\nkeyfile " + Folder().File("broker.key") +
               "\nrequire_certificate true\n";
    }

    static Arguments Trusting(const std::string& ca)
    {
        return {"--ca",  Folder().File(ca),           "--cert", Folder().File("machine.pem"),
                "--key", Folder().File("machine.key")};
    }
};

TEST_F(ABrokerWithTls, IsTrustedByItsAuthority)
{
    Peer service(m_bus_a, "service");
    const Bridge attached = Attach(m_bus_a, Trusting("ca.pem"));
    const Bridge offering = Offer(m_bus_b, Trusting("ca.pem"));
    Peer client(m_bus_b, "client");
    const std::string partner = WaitUntilWhole(client);
    const std::string large(40000, 'a');
    client.WriteLine("send " + partner + " " + large);
    EXPECT_EQ(large, client.WaitForLine("reply "));
}

TEST_F(ABrokerWithTls, IsRefusedWhenAnotherAuthorityIsTrusted)
{
    Bridge bridge = Attach(m_bus_a, Trusting("other-ca.pem"));
    const std::string error = bridge.WaitForLine("pelmar-mqtt-bridge[demo]: no connection");
    EXPECT_NE(std::string::npos, error.find("certificate verify failed")) << error;
    EXPECT_EQ(1, bridge.WaitForEnd());
}

TEST_F(ABrokerWithTls, IsRefusedUnderAnotherName)
{
    Arguments options = Trusting("ca.pem");
    options.insert(options.end(), {"--host", "localhost"});
    Bridge bridge = Attach(m_bus_a, options);
    const std::string error = bridge.WaitForLine("pelmar-mqtt-bridge[demo]: no connection");
    EXPECT_NE(std::string::npos, error.find("certificate")) << error;
    EXPECT_EQ(1, bridge.WaitForEnd());
}

TEST_F(ABrokerWithTls, EndsABridgeWhoseKeyIsNone)
{
    Arguments options = Trusting("ca.pem");
    options.back() = Folder().Write("not-a-key", "x\n");
    Bridge bridge = Attach(m_bus_a, options);
    const std::string error = bridge.WaitForLine("pelmar-mqtt-bridge[demo]: no connection");
    EXPECT_NE(std::string::npos, error.find(options.back())) << error;
    EXPECT_EQ(1, bridge.WaitForEnd());
}

TEST_F(ABrokerWithTls, EndsABridgeWhoseKeyHasAPassphrase)
{
    const std::string locked = Folder().File("locked.key");
    RunToEnd({"openssl", "pkcs8", "-topk8", "-in", Folder().File("machine.key"), "-passout",
              "pass:secret", "-out", locked});
    Arguments options = Trusting("ca.pem");
    options.back() = locked;
    Bridge bridge = Attach(m_bus_a, options);
    const std::string error = bridge.WaitForLine("pelmar-mqtt-bridge[demo]: no connection");
    EXPECT_NE(std::string::npos, error.find(locked)) << error;
    EXPECT_EQ(1, bridge.WaitForEnd());
}

TEST_F(ABrokerWithTls, RefusesABridgeWithoutACertificate)
{
    Bridge bridge = Attach(m_bus_a, {"--ca", Folder().File("ca.pem")});
    bridge.WaitFor("no connection to the broker");
    EXPECT_EQ(1, bridge.WaitForEnd());
}

}  // namespace
