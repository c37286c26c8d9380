#include "session.h"

#include <algorithm>
#include <memory>
#include <utility>

namespace {

using std::chrono::milliseconds;
using Partner = PelmarEndpoint::Partner;

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

PelmarEndpoint::Role EndpointRole(ChannelRole role)
{
    return role == ChannelRole::service ? PelmarEndpoint::Role::service
                                        : PelmarEndpoint::Role::client;
}

std::string NamesOf(const std::vector<Partner>& partners)
{
    std::vector<std::string> names;
    names.reserve(partners.size());
    for (const Partner& partner : partners)
        names.push_back(partner.Name());
    return Joined(names);
}

// The endpoint would go on trying: whether a bus answers at all is found out before it starts.
void RequireBus(Tool& tool)
{
    const Bus bus(tool.queue, tool.Timeout());
}

[[noreturn]] void ThrowBusLost()
{
    throw Failure(Exit::bus, "the connection to the bus was lost");
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
        case Status::busy:
        case Status::stopped:
        case Status::cancelled:
            break;
    }
    return Exit::failure;
}

void Require(PelmarEndpoint::Status status, const Partner& partner, const std::string& error)
{
    if (status == PelmarEndpoint::Status::ok)
        return;
    const std::string text = PelmarEndpoint::ToString(status);
    const bool says_more = !error.empty() && error != text;
    throw Failure(ExitOf(status), partner.Name() + ": " + text + (says_more ? ": " + error : ""));
}

Session::Session(Tool& tool, const std::string& channel, ChannelRole role)
    : m_tool(tool), m_channel(channel), m_role(role), m_endpoint(EndpointRole(role), channel)
{
    const auto post = [this](void (Session::*see)(const Partner&)) {
        return [this, see](const Partner& partner) {
            m_tool.queue.Post([this, see, partner] { (this->*see)(partner); });
        };
    };
    m_endpoint.RunHandlersIn(nullptr);
    m_endpoint.OnReady(post(&Session::SeeReady));
    m_endpoint.OnLost(post(&Session::SeeLost));
    m_endpoint.OnBusLost([this] { m_tool.queue.Post(ThrowBusLost); });
    m_endpoint.OnProblem([this](PelmarEndpoint::Problem problem, const std::string& text) {
        m_tool.queue.Post([this, problem, text] { SeeProblem(problem, text); });
    });
}

void Session::OnReady(PartnerHandler handler)
{
    m_on_ready = std::move(handler);
}

void Session::OnLost(PartnerHandler handler)
{
    m_on_lost = std::move(handler);
}

void Session::Start()
{
    const auto deadline = EventQueue::Clock::now() + m_tool.Timeout();
    RequireBus(m_tool);
    m_endpoint.Start();
    if (!m_tool.queue.Wait([this] { return m_endpoint.IsOnBus(); }, deadline))
        ThrowBusLost();
}

void Session::SeeReady(const Partner& partner)
{
    m_last_ready = EventQueue::Clock::now();
    m_tool.output.Detail("partner " + partner.Name() + " is ready");
    if (m_on_ready)
        m_on_ready(partner);
}

void Session::SeeLost(const Partner& partner)
{
    m_tool.output.Detail("partner " + partner.Name() + " is lost");
    if (m_on_lost)
        m_on_lost(partner);
}

// A policy that refuses one name of three may do no harm: who has found somebody goes on.
void Session::SeeProblem(PelmarEndpoint::Problem problem, const std::string& text)
{
    using Problem = PelmarEndpoint::Problem;
    if (problem == Problem::bus_unreachable)
        throw Failure(Exit::bus, text);
    if (problem == Problem::name_refused && m_endpoint.Partners().empty())
        throw Failure(Exit::refused, text);
    m_tool.output.Note(text);
}

std::vector<Partner> Session::AwaitPartners(const std::string& name, bool all)
{
    const auto deadline = EventQueue::Clock::now() + m_tool.Timeout();
    if (!name.empty())
        return {AwaitNamedPartner(name, deadline)};
    std::vector<Partner> partners = AwaitAnyPartners(deadline);
    if (!all && partners.size() > 1)
        throw Failure(Exit::usage, Count(partners.size(), "partner") + " are ready: " +
                                       NamesOf(partners) + "; choose one with --to, or use --all");
    return partners;
}

Partner Session::AwaitNamedPartner(const std::string& name, EventQueue::Deadline deadline)
{
    Partner named;
    const auto is_ready = [&] {
        const std::vector<Partner> partners = m_endpoint.Partners();
        const auto found =
            std::find_if(partners.begin(), partners.end(),
                         [&](const Partner& partner) { return partner.Name() == name; });
        if (found != partners.end())
            named = *found;
        return found != partners.end();
    };
    if (m_tool.queue.Wait(is_ready, deadline))
        return named;
    const std::string others = NamesOf(m_endpoint.Partners());
    throw Failure(Exit::no_partner, name + " is no partner on channel " + m_channel + " within " +
                                        Seconds(m_tool.Timeout()) +
                                        "; ready: " + (others.empty() ? "none" : others));
}

std::vector<Partner> Session::AwaitAnyPartners(EventQueue::Deadline deadline)
{
    const auto any = [this] { return !m_endpoint.Partners().empty(); };
    if (!m_tool.queue.Wait(any, deadline))
        throw Failure(Exit::no_partner,
                      std::string("no ") + NameOf(OtherRole(m_role)) + " on channel " + m_channel +
                          " within " + Seconds(m_tool.Timeout()) + " (pelmarctl doctor says why)");
    const auto nobody = [] { return false; };
    for (auto quiet = EventQueue::Clock::now();;) {
        m_tool.queue.Wait(nobody, quiet + QUIET_TIME);
        if (m_last_ready <= quiet)
            return m_endpoint.Partners();
        quiet = m_last_ready;
    }
}

std::vector<Session::Response> Session::Request(const Bytes& data,
                                                const std::vector<Partner>& partners,
                                                milliseconds timeout)
{
    struct Asked {
        std::vector<Response> responses;
        std::size_t done = 0;
    };
    // An exception may end the wait before the last response is there.
    const auto asked = std::make_shared<Asked>();
    asked->responses.resize(partners.size());
    for (std::size_t i = 0; i < partners.size(); ++i) {
        m_endpoint.Request(partners[i], data, timeout, [asked, i](Response response) {
            asked->responses[i] = std::move(response);
            ++asked->done;
        });
    }
    m_tool.queue.Wait([&] { return asked->done == partners.size(); }, std::nullopt);
    for (const Response& response : asked->responses) {
        // It may be told before the end of the bus itself.
        if (response.status == PelmarEndpoint::Status::bus_gone)
            ThrowBusLost();
    }
    return std::move(asked->responses);
}
