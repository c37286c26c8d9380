#include "survey.h"

#include <algorithm>
#include <memory>
#include <utility>

#include "stage-names.h"

namespace {

using std::chrono::milliseconds;

// A process that runs answers within a fraction of this.
constexpr milliseconds PATIENCE{1000};

// More than a bus has connections for.
constexpr std::size_t MOST_PARTNERS = 10000;

std::vector<std::string> ChildrenIn(const Answer& answer)
{
    std::vector<std::string> children;
    if (answer.value == nullptr ||
        g_variant_is_of_type(answer.value.get(), G_VARIANT_TYPE("(s)")) == FALSE)
        return children;
    const gchar* xml = nullptr;
    g_variant_get(answer.value.get(), "(&s)", &xml);
    const std::unique_ptr<GDBusNodeInfo, decltype(&g_dbus_node_info_unref)> node(
        g_dbus_node_info_new_for_xml(xml, nullptr), g_dbus_node_info_unref);
    if (node == nullptr || node->nodes == nullptr)
        return children;
    for (GDBusNodeInfo** child = node->nodes; *child != nullptr; ++child) {
        if ((*child)->path != nullptr)
            children.emplace_back((*child)->path);
    }
    return children;
}

// GIO answers this by itself, but in the main loop of the channel.
BusCall GetAll(const ChannelObject& object, const char* interface)
{
    return {object.name, ObjectPathOf(object.channel), "org.freedesktop.DBus.Properties", "GetAll",
            g_variant_new("(s)", interface)};
}

// As its object says, which may be anybody's: what is no name of a connection is left out.
std::optional<std::vector<std::string>> DirectPartnersIn(const Answer& answer)
{
    if (answer.value == nullptr ||
        g_variant_is_of_type(answer.value.get(), G_VARIANT_TYPE("(a{sv})")) == FALSE)
        return std::nullopt;
    const VariantPtr all(g_variant_get_child_value(answer.value.get(), 0));
    const VariantPtr names(
        g_variant_lookup_value(all.get(), "Partners", G_VARIANT_TYPE_STRING_ARRAY));
    if (names == nullptr)
        return std::nullopt;
    std::vector<std::string> partners;
    GVariantIter iterator;
    const gchar* name = nullptr;
    g_variant_iter_init(&iterator, names.get());
    while (partners.size() < MOST_PARTNERS &&
           g_variant_iter_next(&iterator, "&s", &name) != FALSE) {
        if (g_dbus_is_unique_name(name) != FALSE)
            partners.emplace_back(name);
    }
    return partners;
}

ObjectState StateOf(const Answer& answer)
{
    if (answer.value != nullptr)
        return ObjectState::alive;
    if (IsSilent(answer))
        return ObjectState::silent;
    if (Is(answer, G_DBUS_ERROR_ACCESS_DENIED))
        return ObjectState::refused;
    return ObjectState::no_interface;
}

std::vector<ChannelObject> FindObjects(Bus& bus, const std::set<std::string>& known,
                                       const std::optional<MatchRules>& rules, Survey& survey)
{
    std::vector<BusCall> calls;
    for (const std::string& name : survey.names)
        calls.push_back({name, CHANNEL_OBJECT_ROOT, "org.freedesktop.DBus.Introspectable",
                         "Introspect", nullptr});
    const std::vector<Answer> answers = bus.CallAll(calls, PATIENCE);
    std::vector<ChannelObject> candidates;
    for (std::size_t i = 0; i < answers.size(); ++i) {
        const std::string& name = survey.names[i];
        for (const std::string& channel : ChildrenIn(answers[i]))
            candidates.push_back({channel, name, ObjectState::no_interface, {}, {}});
        const bool is_silent = IsSilent(answers[i]);
        const bool is_refused = Is(answers[i], G_DBUS_ERROR_ACCESS_DENIED);
        if (!is_silent && !is_refused)
            continue;
        const auto shown = rules ? rules->ChannelsOf(name) : std::set<std::string>();
        for (const std::string& channel : shown)
            candidates.push_back(
                {channel, name, is_silent ? ObjectState::silent : ObjectState::refused, {}, {}});
        if (is_silent) {
            survey.silent.push_back(name);
            continue;
        }
        ++survey.refused;
        for (const std::string& channel : known) {
            if (shown.count(channel) == 0)
                candidates.push_back({channel, name, ObjectState::none, {}, {}});
        }
    }
    return candidates;
}

// Of those that were not seen but guessed only what answers is an object.
void AskObjects(Bus& bus, std::vector<ChannelObject>& candidates)
{
    std::vector<BusCall> calls;
    calls.reserve(candidates.size());
    for (const ChannelObject& candidate : candidates)
        calls.push_back(GetAll(candidate, CHANNEL_INTERFACE));
    const std::vector<Answer> answers = bus.CallAll(calls, PATIENCE);
    for (std::size_t i = 0; i < answers.size(); ++i) {
        ChannelObject& candidate = candidates[i];
        const ObjectState state = StateOf(answers[i]);
        const bool was_seen = candidate.state != ObjectState::none;
        candidate.state = was_seen || state == ObjectState::alive ? state : ObjectState::none;
    }
    candidates.erase(std::remove_if(candidates.begin(), candidates.end(),
                                    [](const ChannelObject& candidate) {
                                        return candidate.state == ObjectState::none;
                                    }),
                     candidates.end());
}

// Only an endpoint that knows of direct paths has an answer.
void AskDirectPartners(Bus& bus, std::vector<ChannelObject>& objects)
{
    std::vector<BusCall> calls;
    std::vector<ChannelObject*> asked;
    for (ChannelObject& object : objects) {
        if (object.state != ObjectState::alive)
            continue;
        calls.push_back(GetAll(object, DIRECT_PATH_INTERFACE));
        asked.push_back(&object);
    }
    const std::vector<Answer> answers = bus.CallAll(calls, PATIENCE);
    for (std::size_t i = 0; i < answers.size(); ++i)
        asked[i]->direct = DirectPartnersIn(answers[i]);
}

void AskCredentials(Bus& bus, std::vector<ChannelObject>& objects)
{
    std::vector<BusCall> calls;
    calls.reserve(objects.size());
    for (const ChannelObject& object : objects)
        calls.push_back(
            Bus::DaemonCall("GetConnectionCredentials", g_variant_new("(s)", object.name.c_str())));
    const std::vector<Answer> answers = bus.CallAll(calls, PATIENCE);
    for (std::size_t i = 0; i < answers.size(); ++i)
        objects[i].credentials = Bus::CredentialsIn(answers[i]);
}

// "type='signal',arg0='x'"; the values here have neither commas nor quotes.
MatchRules::Rule ParseRule(const std::string& text)
{
    MatchRules::Rule rule;
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t equals = text.find("='", start);
        const std::size_t end = text.find('\'', equals == std::string::npos ? equals : equals + 2);
        if (equals == std::string::npos || end == std::string::npos)
            break;
        rule[text.substr(start, equals - start)] = text.substr(equals + 2, end - equals - 2);
        start = end + 2;
    }
    return rule;
}

std::string ValueIn(const MatchRules::Rule& rule, const char* key)
{
    const auto found = rule.find(key);
    return found != rule.end() ? found->second : "";
}

bool IsUniqueName(const std::string& name)
{
    return !name.empty() && name.front() == ':';
}

}  // namespace

std::optional<MatchRules> MatchRules::Read(Bus& bus)
{
    BusCall call = Bus::DaemonCall("GetAllMatchRules");
    call.interface = "org.freedesktop.DBus.Debug.Stats";
    const Answer answer = bus.Call(call, PATIENCE);
    if (answer.value == nullptr ||
        g_variant_is_of_type(answer.value.get(), G_VARIANT_TYPE("(a{sas})")) == FALSE)
        return std::nullopt;
    MatchRules rules;
    GVariantIter* connections = nullptr;
    g_variant_get(answer.value.get(), "(a{sas})", &connections);
    const gchar* name = nullptr;
    GVariantIter* texts = nullptr;
    while (g_variant_iter_loop(connections, "{&sas}", &name, &texts) != FALSE) {
        std::vector<Rule>& parsed = rules.m_rules[name];
        const gchar* text = nullptr;
        while (g_variant_iter_next(texts, "&s", &text) != FALSE)
            parsed.push_back(ParseRule(text));
    }
    g_variant_iter_free(connections);
    return rules;
}

const std::vector<MatchRules::Rule>& MatchRules::RulesOf(const std::string& name) const
{
    static const std::vector<Rule> none;
    const auto found = m_rules.find(name);
    return found != m_rules.end() ? found->second : none;
}

bool MatchRules::TakesPart(const std::string& name, const std::string& channel,
                           ChannelRole role) const
{
    const auto watched = StageNamesOf(channel, OtherRole(role));
    const std::vector<Rule>& rules = RulesOf(name);
    return std::any_of(rules.begin(), rules.end(), [&](const Rule& rule) {
        return std::find(watched.begin(), watched.end(), ValueIn(rule, "arg0")) != watched.end();
    });
}

std::set<std::string> MatchRules::Members(const std::string& channel) const
{
    std::set<std::string> members;
    for (const auto& [name, rules] : m_rules) {
        for (const ChannelRole role : BOTH_ROLES) {
            if (TakesPart(name, channel, role))
                members.insert(name);
        }
    }
    return members;
}

std::set<std::string> MatchRules::ChannelsOf(const std::string& name) const
{
    std::set<std::string> channels;
    for (const Rule& rule : RulesOf(name)) {
        if (const auto stage = ParseStageName(ValueIn(rule, "arg0")))
            channels.insert(stage->channel);
    }
    return channels;
}

std::set<std::string> MatchRules::WiredBy(const std::string& name, const std::string& channel) const
{
    const bool is_endpoint = IsEndpoint(name, channel);
    std::set<std::string> partners;
    for (const Rule& rule : RulesOf(name)) {
        const std::string partner = ValueIn(rule, is_endpoint ? "arg0" : "sender");
        if (IsUniqueName(partner) &&
            (is_endpoint || ValueIn(rule, "path") == ObjectPathOf(channel)))
            partners.insert(partner);
    }
    return partners;
}

bool MatchRules::IsEndpoint(const std::string& name, const std::string& channel) const
{
    std::size_t stages = 0;
    bool has_partners = false;
    for (const Rule& rule : RulesOf(name)) {
        const std::string watched = ValueIn(rule, "arg0");
        const auto stage = ParseStageName(watched);
        if (IsUniqueName(watched))
            has_partners = true;
        else if (stage && stage->channel == channel)
            ++stages;
        else
            return false;
    }
    return stages != 0 && (has_partners || stages < ALL_STAGES.size());
}

std::size_t MatchRules::CountOf(const std::string& name) const
{
    return RulesOf(name).size();
}

Survey TakeSurvey(Bus& bus, const std::set<std::string>& known,
                  const std::optional<MatchRules>& rules)
{
    Survey survey;
    const std::string own = bus.UniqueName();
    for (std::string& name : bus.Names()) {
        if (name.front() == ':' && name != own)
            survey.names.push_back(std::move(name));
    }
    survey.objects = FindObjects(bus, known, rules, survey);
    AskObjects(bus, survey.objects);
    AskDirectPartners(bus, survey.objects);
    AskCredentials(bus, survey.objects);
    std::sort(survey.objects.begin(), survey.objects.end(),
              [](const ChannelObject& one, const ChannelObject& other) {
                  return std::tie(one.channel, one.name) < std::tie(other.channel, other.name);
              });
    return survey;
}
