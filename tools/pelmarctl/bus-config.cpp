#include "bus-config.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <sstream>
#include <string_view>

#include "stage-names.h"

namespace {

namespace fs = std::filesystem;

constexpr int DEEPEST_INCLUDE = 10;

// Where the system bus's configuration is, in the order of preference.
constexpr std::array<const char*, 2> SYSTEM_FILES = {"/usr/share/dbus-1/system.conf",
                                                     "/etc/dbus-1/system.conf"};

bool StartsWith(const std::string& text, const std::string& start)
{
    return text.compare(0, start.size(), start) == 0;
}

// Reads one file into a configuration.
class Reader {
public:
    Reader(BusConfig& config, std::string file, int depth)
        : m_config(config), m_file(std::move(file)), m_depth(depth)
    {
    }

    void Read()
    {
        const std::optional<std::string> text = ReadTextFile(m_file);
        if (!text) {
            m_config.faults.push_back(m_file + ": cannot be read");
            return;
        }
        m_config.files.push_back(m_file);
        const GMarkupParser parser = {cb_Start, cb_End, cb_Text, nullptr, nullptr};
        m_context =
            g_markup_parse_context_new(&parser, G_MARKUP_TREAT_CDATA_AS_TEXT, this, nullptr);
        GError* raw_error = nullptr;
        const bool good =
            g_markup_parse_context_parse(m_context, text->data(), static_cast<gssize>(text->size()),
                                         &raw_error) != FALSE &&
            g_markup_parse_context_end_parse(m_context, &raw_error) != FALSE;
        const ErrorPtr error(raw_error);
        if (!good)
            Fault("not well-formed: " + TextOf(error.get()));
        g_markup_parse_context_free(m_context);
        if (good && !m_has_root)
            m_config.faults.push_back(m_file + ": has no <busconfig>");
    }

private:
    using Attributes = std::map<std::string, std::string>;

    static void cb_Start(GMarkupParseContext* /*context*/, const gchar* element,
                         const gchar** names, const gchar** values, gpointer reader,
                         GError** /*error*/)
    {
        Attributes attributes;
        for (std::size_t i = 0; names[i] != nullptr; ++i)
            attributes[names[i]] = values[i];
        auto& self = *static_cast<Reader*>(reader);
        self.m_element = element;
        self.m_attributes = attributes;
        self.m_text.clear();
        self.Start(element, attributes);
    }

    static void cb_Text(GMarkupParseContext* /*context*/, const gchar* text, gsize size,
                        gpointer reader, GError** /*error*/)
    {
        static_cast<Reader*>(reader)->m_text.append(text, size);
    }

    static void cb_End(GMarkupParseContext* /*context*/, const gchar* element, gpointer reader,
                       GError** /*error*/)
    {
        static_cast<Reader*>(reader)->End(element);
    }

    int Line() const
    {
        int line = 0;
        g_markup_parse_context_get_position(m_context, &line, nullptr);
        return line;
    }

    void Fault(const std::string& text)
    {
        m_config.faults.push_back(m_file + ":" + std::to_string(Line()) + ": " + text);
    }

    void Start(const std::string& element, const Attributes& attributes)
    {
        if (element == "busconfig")
            m_has_root = true;
        else if (element == "policy")
            StartSection(attributes);
        else if ((element == "allow" || element == "deny") && m_in_section)
            m_config.sections.back().rules.push_back({element == "allow", attributes, Line()});
    }

    void StartSection(const Attributes& attributes)
    {
        PolicySection section;
        section.file = m_file;
        section.line = Line();
        m_in_section = true;
        if (attributes.count("user") != 0) {
            section.context = PolicySection::Context::user;
            section.account = attributes.at("user");
        } else if (attributes.count("group") != 0) {
            section.context = PolicySection::Context::group;
            section.account = attributes.at("group");
        } else if (attributes.count("at_console") != 0) {
            section.context = PolicySection::Context::console;
        } else if (attributes.count("context") != 0 && attributes.at("context") == "mandatory") {
            section.context = PolicySection::Context::mandatory;
        } else if (attributes.count("context") == 0 || attributes.at("context") != "default") {
            Fault(
                "a policy needs one of user, group, at_console, and context with default or "
                "mandatory");
        }
        m_config.sections.push_back(section);
    }

    void End(const std::string& element)
    {
        const std::string value = m_element == element ? m_text : "";
        if (element == "policy")
            m_in_section = false;
        else if (element == "limit")
            TakeLimit(value);
        else if (element == "include")
            Include(Beside(value));
        else if (element == "includedir")
            IncludeFolder(Beside(value));
        m_element.clear();
    }

    void TakeLimit(const std::string& value)
    {
        const auto name = m_attributes.find("name");
        gint64 number = 0;
        std::string digits = value;
        g_strstrip(digits.data());
        if (name != m_attributes.end() &&
            g_ascii_string_to_signed(digits.c_str(), 10, 0, G_MAXINT, &number, nullptr) != FALSE)
            m_config.limits[name->second] = static_cast<std::size_t>(number);
    }

    fs::path Beside(const std::string& value) const
    {
        std::string name = value;
        name.erase(0, name.find_first_not_of(" \t\n"));
        name.erase(name.find_last_not_of(" \t\n") + 1);
        return fs::path(m_file).parent_path() / name;
    }

    void Include(const fs::path& file)
    {
        const bool may_be_missing =
            m_attributes.count("ignore_missing") != 0 && m_attributes.at("ignore_missing") == "yes";
        const bool is_for_selinux = m_attributes.count("if_selinux_enabled") != 0;
        if (is_for_selinux || (may_be_missing && !fs::exists(file)))
            return;
        if (m_depth == DEEPEST_INCLUDE)
            Fault("files include each other");
        else
            Reader(m_config, file.string(), m_depth + 1).Read();
    }

    void IncludeFolder(const fs::path& folder)
    {
        std::error_code ignored;
        std::vector<fs::path> files;
        for (const auto& entry : fs::directory_iterator(folder, ignored)) {
            if (entry.path().extension() == ".conf")
                files.push_back(entry.path());
        }
        std::sort(files.begin(), files.end());
        m_attributes.clear();
        for (const fs::path& file : files)
            Include(file);
    }

    BusConfig& m_config;
    const std::string m_file;
    const int m_depth;
    GMarkupParseContext* m_context = nullptr;
    bool m_has_root = false;
    bool m_in_section = false;

    // The innermost element that has begun.
    std::string m_element;
    Attributes m_attributes;
    std::string m_text;
};

// Absent or "*" is anything.
bool Covers(const PolicyRule& rule, const char* attribute, const std::string& value)
{
    const std::string wanted = rule.Get(attribute);
    return wanted.empty() || wanted == "*" || wanted == value;
}

bool IsAbout(const PolicyRule& rule, const char* direction)
{
    return std::any_of(rule.attributes.begin(), rule.attributes.end(), [&](const auto& attribute) {
        return StartsWith(attribute.first, direction);
    });
}

bool MatchesOwn(const PolicyRule& rule, const std::string& name)
{
    if (rule.Has("own"))
        return Covers(rule, "own", name);
    const std::string prefix = rule.Get("own_prefix");
    return rule.Has("own_prefix") && (name == prefix || StartsWith(name, prefix + "."));
}

// A rule by destination does not match: the partner owns none of its stage names for longer than a
// moment. Nor does one for broadcasts.
bool MatchesSend(const PolicyRule& rule, const PolicyQuestion& question)
{
    const bool is_for_eavesdropping = !rule.allows && rule.Get("eavesdrop") == "true";
    const bool is_for_replies = rule.Has("send_requested_reply") && !rule.Has("send_type");
    return IsAbout(rule, "send_") && !is_for_eavesdropping && !is_for_replies &&
           Covers(rule, "send_type", question.type) && Covers(rule, "send_path", question.path) &&
           Covers(rule, "send_interface", question.interface) &&
           Covers(rule, "send_member", question.member) && Covers(rule, "send_destination", ":") &&
           !rule.Has("send_destination_prefix") && !rule.Has("send_error") &&
           rule.Get("send_broadcast") != "true";
}

bool Matches(const PolicyRule& rule, const PolicyQuestion& question)
{
    return question.own.empty() ? MatchesSend(rule, question) : MatchesOwn(rule, question.own);
}

bool Concerns(const PolicySection& section, const Identity& identity)
{
    using Context = PolicySection::Context;
    const auto is = [&](const std::string& name, const std::optional<uid_t>& id) {
        return section.account == name || (id && section.account == std::to_string(*id));
    };
    switch (section.context) {
        case Context::by_default:
        case Context::mandatory:
            return true;
        case Context::user:
            return is(identity.user, identity.uid);
        case Context::group:
            return std::any_of(identity.groups.begin(), identity.groups.end(),
                               [&](const std::string& group) { return is(group, std::nullopt); });
        case Context::console:
            break;
    }
    return false;
}

std::string WithConfigOption(const std::vector<std::string>& words)
{
    for (std::size_t i = 0; i < words.size(); ++i) {
        const std::string option = "--config-file";
        if (StartsWith(words[i], option + "="))
            return words[i].substr(option.size() + 1);
        if (words[i] == option && i + 1 < words.size())
            return words[i + 1];
    }
    return {};
}

std::string InFolderOf(pid_t pid, const std::string& file)
{
    std::error_code ignored;
    const fs::path folder = fs::read_symlink("/proc/" + std::to_string(pid) + "/cwd", ignored);
    return file.empty() ? file : (folder / file).lexically_normal().string();
}

std::string SystemFile()
{
    for (const char* file : SYSTEM_FILES) {
        if (fs::exists(file))
            return file;
    }
    return {};
}

// dbus-broker itself knows no files: the launcher that started it reads them.
std::optional<pid_t> ParentOf(pid_t pid)
{
    std::istringstream lines(ReadTextFile("/proc/" + std::to_string(pid) + "/status").value_or(""));
    const std::string key = "PPid:";
    for (std::string line; std::getline(lines, line);) {
        if (StartsWith(line, key))
            return static_cast<pid_t>(std::stol(line.substr(key.size())));
    }
    return std::nullopt;
}

}  // namespace

std::string PolicyRule::Get(const char* attribute) const
{
    const auto found = attributes.find(attribute);
    return found != attributes.end() ? found->second : "";
}

bool PolicySection::AccountExists() const
{
    return (context != Context::user || UserExists(account)) &&
           (context != Context::group || GroupExists(account));
}

std::string PolicySection::Who() const
{
    if (context == Context::user)
        return "user '" + account + "'";
    if (context == Context::group)
        return "group '" + account + "'";
    return "everybody";
}

bool PolicySection::Mentions(const std::string& channel) const
{
    return std::any_of(rules.begin(), rules.end(), [&](const PolicyRule& rule) {
        const std::optional<StageName> name = ParseStageName(rule.Get("own"));
        return (name && name->channel == channel) || rule.Get("send_path") == ObjectPathOf(channel);
    });
}

PolicyQuestion PolicyQuestion::Own(const std::string& name)
{
    PolicyQuestion question;
    question.own = name;
    return question;
}

PolicyQuestion PolicyQuestion::Send(const std::string& channel)
{
    return {"", "method_call", ObjectPathOf(channel), CHANNEL_INTERFACE, CHANNEL_METHOD};
}

PolicyQuestion PolicyQuestion::Signal(const std::string& channel)
{
    return {"", "signal", ObjectPathOf(channel), CHANNEL_INTERFACE, CHANNEL_SIGNAL};
}

PolicyQuestion PolicyQuestion::OpenPath(const std::string& channel)
{
    return {"", "method_call", ObjectPathOf(channel), DIRECT_PATH_INTERFACE, "Open"};
}

bool BusConfig::Allows(const Identity& identity, const PolicyQuestion& question) const
{
    using Context = PolicySection::Context;
    bool allowed = false;
    for (const Context context : {Context::by_default, Context::group, Context::user,
                                  Context::console, Context::mandatory}) {
        for (const PolicySection& section : sections) {
            if (section.context != context || !Concerns(section, identity))
                continue;
            for (const PolicyRule& rule : section.rules)
                allowed = Matches(rule, question) ? rule.allows : allowed;
        }
    }
    return allowed;
}

std::set<std::string> BusConfig::Channels() const
{
    std::set<std::string> channels;
    for (const PolicySection& section : sections) {
        for (const PolicyRule& rule : section.rules) {
            if (const auto name = ParseStageName(rule.Get("own")))
                channels.insert(name->channel);
        }
    }
    return channels;
}

std::size_t BusConfig::Limit(const std::string& name, std::size_t otherwise) const
{
    const auto found = limits.find(name);
    return found != limits.end() ? found->second : otherwise;
}

BusConfig ReadBusConfig(const std::string& file)
{
    BusConfig config;
    if (!file.empty())
        Reader(config, file, 0).Read();
    return config;
}

BusConfig ReadBusConfigFile(const std::string& file)
{
    BusConfig config;
    Reader(config, file, DEEPEST_INCLUDE).Read();
    return config;
}

Daemon DaemonOf(Bus& bus)
{
    Daemon daemon;
    daemon.pid = bus.CredentialsOf("org.freedesktop.DBus").pid;
    std::optional<pid_t> pid = daemon.pid;
    while (pid && *pid > 1 && daemon.config_file.empty()) {
        const std::vector<std::string> words = CommandOf(*pid);
        const std::string program =
            words.empty() ? "" : fs::path(words.front()).filename().string();
        if (!StartsWith(program, "dbus-"))
            break;
        if (daemon.program.empty())
            daemon.program = program;
        daemon.config_file = InFolderOf(*pid, WithConfigOption(words));
        const bool is_system = std::find(words.begin(), words.end(), "--system") != words.end() ||
                               std::find(words.begin(), words.end(), "system") != words.end();
        if (daemon.config_file.empty() && is_system)
            daemon.config_file = SystemFile();
        pid = ParentOf(*pid);
    }
    return daemon;
}

std::string ConfigFileOf(Bus& bus)
{
    return DaemonOf(bus).config_file;
}
