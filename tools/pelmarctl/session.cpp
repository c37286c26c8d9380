#include "session.h"

#include <algorithm>
#include <utility>

namespace {

using std::chrono::milliseconds;

// Nobody can say how many partners there are. Those that are there answer one and the same pulse,
// within this of each other.
constexpr milliseconds QUIET_TIME{100};

std::string Seconds(milliseconds time)
{
    const std::string text = std::to_string(static_cast<double>(time.count()) / 1000);
    const std::size_t last = text.find_last_not_of("0.");
    const std::string brief = text.substr(0, std::max(last + 1, text.find('.')));
    return brief + (brief == "1" ? " second" : " seconds");
}

}  // namespace

Exit ExitOf(PelmarEndpoint::Status status)
{
    using Status = PelmarEndpoint::Status;
    switch (status) {
        case Status::ok:
            return Exit::ok;
        case Status::no_such_partner:
        case Status::not_ready:
        case Status::partner_lost:
            return Exit::no_partner;
        case Status::timeout:
            return Exit::timeout;
        case Status::refused:
            return Exit::refused;
        case Status::bus_gone:
            return Exit::bus;
        case Status::remote_error:
            return Exit::remote;
        case Status::too_large:
            return Exit::too_large;
        case Status::queue_full:
        case Status::stopped:
            break;
    }
    return Exit::failure;
}

void Require(PelmarEndpoint::Status status, const std::string& partner, const std::string& error)
{
    if (status == PelmarEndpoint::Status::ok)
        return;
    const std::string text = PelmarEndpoint::ToString(status);
    const bool says_more = !error.empty() && error != text;
    throw Failure(ExitOf(status), partner + ": " + text + (says_more ? ": " + error : ""));
}

Session::Session(Tool& tool, const std::string& channel, Role role,
                 PelmarEndpoint::Handlers handlers)
    : m_tool(tool),
      m_channel(channel),
      m_role(role),
      m_bus(tool.queue, tool.Timeout()),
      m_handlers(handlers)
{
    const auto to_main_thread = [this](void (Session::*function)(const std::string& text)) {
        return [this, function](const std::string& text) {
            m_tool.queue.Post([this, function, text] { (this->*function)(text); });
        };
    };
    handlers.ready = to_main_thread(&Session::OnReady);
    handlers.lost = to_main_thread(&Session::OnLost);
    handlers.problem = to_main_thread(&Session::OnProblem);
    PelmarEndpoint::Options options;
    options.role = role;
    m_endpoint = std::make_unique<PelmarEndpoint>(channel, std::move(handlers), options);
}

void Session::OnReady(const std::string& partner)
{
    m_last_ready = EventQueue::Clock::now();
    m_tool.output.Detail("partner " + partner + " is ready");
    if (m_handlers.ready)
        m_handlers.ready(partner);
}

void Session::OnLost(const std::string& partner)
{
    m_tool.output.Detail("partner " + partner + " is lost");
    if (m_handlers.lost)
        m_handlers.lost(partner);
}

// The endpoint says in words what is wrong. Whether it is the policy, the bus says: to try the name
// once more changes nothing where it is refused, and is one more repeated pulse where it is not.
void Session::OnProblem(const std::string& text)
{
    const StageNames names(m_channel, m_role);
    if (m_endpoint->Partners().empty() && !m_bus.MayOwn(names[Stage::syn]))
        throw Failure(Exit::refused, text);
    m_tool.output.Note(text);
}

std::vector<std::string> Session::AwaitPartners(const std::string& name, bool all)
{
    const auto deadline = EventQueue::Clock::now() + m_tool.Timeout();
    if (!name.empty()) {
        AwaitNamedPartner(name, deadline);
        return {name};
    }
    std::vector<std::string> partners = AwaitAnyPartners(deadline);
    if (!all && partners.size() > 1)
        throw Failure(Exit::usage, Count(partners.size(), "partner") + " are ready: " +
                                       Joined(partners) + "; choose one with --to, or use --all");
    return partners;
}

void Session::AwaitNamedPartner(const std::string& name, EventQueue::Deadline deadline)
{
    const auto is_ready = [&] {
        const std::vector<std::string> partners = m_endpoint->Partners();
        return std::find(partners.begin(), partners.end(), name) != partners.end();
    };
    if (m_tool.queue.Wait(is_ready, deadline))
        return;
    const std::string others = Joined(m_endpoint->Partners());
    throw Failure(Exit::no_partner, name + " is no partner on channel " + m_channel + " within " +
                                        Seconds(m_tool.Timeout()) +
                                        "; ready: " + (others.empty() ? "none" : others));
}

std::vector<std::string> Session::AwaitAnyPartners(EventQueue::Deadline deadline)
{
    const auto any = [this] { return !m_endpoint->Partners().empty(); };
    if (!m_tool.queue.Wait(any, deadline))
        throw Failure(Exit::no_partner,
                      std::string("no ") + NameOf(OtherRole(m_role)) + " on channel " + m_channel +
                          " within " + Seconds(m_tool.Timeout()) + " (pelmarctl doctor says why)");
    const auto nobody = [] { return false; };
    for (auto quiet = EventQueue::Clock::now();;) {
        m_tool.queue.Wait(nobody, quiet + QUIET_TIME);
        if (m_last_ready <= quiet)
            return m_endpoint->Partners();
        quiet = m_last_ready;
    }
}

std::vector<Session::Response> Session::Request(const Bytes& data,
                                                const std::vector<std::string>& partners,
                                                milliseconds timeout)
{
    struct Asked {
        std::vector<Response> responses;
        std::size_t done = 0;
    };
    const auto asked = std::make_shared<Asked>();
    asked->responses.resize(partners.size());
    for (std::size_t i = 0; i < partners.size(); ++i) {
        m_endpoint->Request(data, partners[i], timeout,
                            [asked, i, &queue = m_tool.queue](const Response& response) {
                                queue.Post([asked, i, response] {
                                    asked->responses[i] = response;
                                    ++asked->done;
                                });
                            });
    }
    m_tool.queue.Wait([&] { return asked->done == partners.size(); }, std::nullopt);
    return std::move(asked->responses);
}
