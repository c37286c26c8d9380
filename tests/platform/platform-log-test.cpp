// The platform log.

#include "platform-log.h"

#include <glib.h>
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <string>
#include <vector>

#include "child-process.h"

namespace {

struct Entry {
    GLogLevelFlags level;
    std::string message;
    std::string priority;
    std::string domain;
};

// The default definition with GLib's writer replaced, so that its entries can be looked at.
class TheDefaultLog : public testing::Test {
protected:
    TheDefaultLog() { g_log_set_writer_func(Keep, this, nullptr); }

    static void Show(const char* domains) { g_setenv("G_MESSAGES_DEBUG", domains, TRUE); }
    static void HideDebug() { g_unsetenv("G_MESSAGES_DEBUG"); }

    std::vector<Entry> m_entries;

private:
    static GLogWriterOutput Keep(GLogLevelFlags level, const GLogField* fields, gsize count,
                                 gpointer test)
    {
        Entry entry{level, "", "", ""};
        for (gsize i = 0; i < count; ++i) {
            const std::string key = fields[i].key;
            const auto* value = static_cast<const char*>(fields[i].value);
            if (key == "MESSAGE")
                entry.message = value;
            else if (key == "PRIORITY")
                entry.priority = value;
            else if (key == "GLIB_DOMAIN")
                entry.domain = value;
            else
                ADD_FAILURE() << "unexpected field " << key;
        }
        static_cast<TheDefaultLog*>(test)->m_entries.push_back(entry);
        return G_LOG_WRITER_HANDLED;
    }
};

TEST_F(TheDefaultLog, WritesAnEntryWithTheTagAsDomainAndALevelForThePriority)
{
    Show("all");
    const struct {
        int priority;
        GLogLevelFlags level;
        const char* syslog_priority;
    } cases[] = {
        {0, G_LOG_LEVEL_DEBUG, "7"},
        {PLATFORM_LOG_DEBUG, G_LOG_LEVEL_DEBUG, "7"},
        {4, G_LOG_LEVEL_INFO, "6"},
        {5, G_LOG_LEVEL_WARNING, "4"},
        {PLATFORM_LOG_ERROR, G_LOG_LEVEL_CRITICAL, "3"},
        {7, G_LOG_LEVEL_CRITICAL, "2"},
        {100, G_LOG_LEVEL_CRITICAL, "2"},
    };
    for (const auto& [priority, level, syslog_priority] : cases) {
        m_entries.clear();
        EXPECT_EQ(8, platform_log_print(0, priority, "kestrin", "%s is %d", "it", 42));
        ASSERT_EQ(1U, m_entries.size()) << priority;
        EXPECT_EQ(level, m_entries.front().level) << priority;
        EXPECT_EQ(syslog_priority, m_entries.front().priority) << priority;
        EXPECT_EQ("kestrin", m_entries.front().domain);
        EXPECT_EQ("it is 42", m_entries.front().message);
    }
}

TEST_F(TheDefaultLog, CutsTheNewlinesAtTheEndAndReturnsTheRestsLength)
{
    for (const auto& [text, shown] : std::vector<std::pair<std::string, std::string>>{
             {"text\n\n", "text"}, {"a\nb\n", "a\nb"}, {"\n\n", ""}, {"", ""}, {" \n ", " \n "}}) {
        m_entries.clear();
        EXPECT_EQ(static_cast<int>(shown.size()),
                  platform_log_print(0, PLATFORM_LOG_ERROR, "kestrin", "%s", text.c_str()));
        ASSERT_EQ(1U, m_entries.size());
        EXPECT_EQ(shown, m_entries.front().message);
    }
}

TEST_F(TheDefaultLog, FormatsNothingThatIsHidden)
{
    HideDebug();
    // Reading a byte of it would end the process.
    void* const unreadable = mmap(nullptr, 1, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(MAP_FAILED, unreadable);
    EXPECT_EQ(0, platform_log_print(0, PLATFORM_LOG_DEBUG, "kestrin", "%s",
                                    static_cast<const char*>(unreadable)));
    EXPECT_TRUE(m_entries.empty());
}

TEST_F(TheDefaultLog, ShowsDebugLinesOfTheNamedDomainsOnly)
{
    Show("other kestrin");
    platform_log_print(0, PLATFORM_LOG_DEBUG, "kestrin", "shown");
    platform_log_print(0, PLATFORM_LOG_DEBUG, "stranger", "hidden");
    ASSERT_EQ(1U, m_entries.size());
    EXPECT_EQ("shown", m_entries.front().message);
}

TEST_F(TheDefaultLog, ShowsErrorsAlways)
{
    HideDebug();
    platform_log_print(0, PLATFORM_LOG_ERROR, "kestrin", "shown");
    EXPECT_EQ(1U, m_entries.size());
}

// ---- In a program --------------------------------------------------------------------------

const ChildProcess::Environment SHOW_ALL = {{"G_MESSAGES_DEBUG", "all"}};

class ALogLine : public testing::TestWithParam<int> {
protected:
    // What comes out of a shell command line in which $0 is the program, as one string.
    static std::string OutputOf(const std::string& command)
    {
        ChildProcess shell(
            {"sh", "-c", command + "; echo ' <'", PELMAR_LOG_LINE, std::to_string(GetParam())},
            SHOW_ALL);
        std::string output;
        for (std::string line = shell.WaitForLine(""); line != " <"; line = shell.WaitForLine(""))
            output += line + "\n";
        return output;
    }
};

TEST_P(ALogLine, NeverGoesToStandardOutput)
{
    EXPECT_EQ("end\n", OutputOf("\"$0\" \"$1\" text 2>/dev/null"));
}

TEST_P(ALogLine, GoesToStandardErrorUnderTheTag)
{
    const std::string output = OutputOf("\"$0\" \"$1\" text 2>&1 >/dev/null");
    EXPECT_NE(std::string::npos, output.find("kestrin")) << output;
    const std::string end = "text\n";
    ASSERT_LE(end.size(), output.size());
    EXPECT_EQ(end, output.substr(output.size() - end.size()));
}

INSTANTIATE_TEST_SUITE_P(Priorities, ALogLine, testing::Range(PLATFORM_LOG_DEBUG + 0, 8),
                         testing::PrintToStringParamName());

// ---- Replaced by a program's own -----------------------------------------------------------

TEST(AProgramsOwnLog, TakesThePlaceOfTheDefaultWithBothKindsOfLibrary)
{
    for (const char* program : {PELMAR_OWN_LOG_STATIC, PELMAR_OWN_LOG_SHARED}) {
        ChildProcess process({program}, SHOW_ALL);
        process.WaitForLine("own log: 0 3 kestrin pelmar-dbus-local.cpp: PelmarDbusLocal(");
        process.WaitForLine("own log: 0 6 kestrin pelmar-dbus-local.cpp: PelmarDbusLocal(");
        process.WaitForLine("end");
        EXPECT_EQ(0, process.WaitForEnd());
    }
}

TEST(AProgramWithoutALogOfItsOwn, HasTheDefaultWithBothKindsOfLibrary)
{
    for (const char* program : {PELMAR_DEFAULT_LOG_STATIC, PELMAR_DEFAULT_LOG_SHARED}) {
        ChildProcess process(
            {"sh", "-c", "\"$0\" 2>&1 | grep -e kestrin-CRITICAL -e end", program});
        process.WaitForLine("(process");
        EXPECT_EQ("", process.WaitForLine("end"));
    }
}

}  // namespace
