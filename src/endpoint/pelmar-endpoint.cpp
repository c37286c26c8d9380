// The endpoint's public face: the values that applications hold, and what is handed on inside.

#include "pelmar-endpoint.h"

#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <utility>

#include "endpoint-impl.h"
#include "endpoint-tasks.h"

#define PELMAR_LOG_FILE "pelmar-endpoint.cpp"
#include "log-lines.h"

const char* PelmarEndpoint::ToString(Status status)
{
    switch (status) {
        case Status::ok:
            return "ok";
        case Status::no_such_partner:
            return "no such partner";
        case Status::not_ready:
            return "the partner is not ready";
        case Status::too_large:
            return "the message is too large";
        case Status::queue_full:
            return "the partner's window is full";
        case Status::busy:
            return "the bus or the partner is busy";
        case Status::bus_gone:
            return "the bus is gone";
        case Status::stopped:
            return "the endpoint is stopped";
        case Status::cancelled:
            return "the request was cancelled";
        case Status::timeout:
            return "no answer within the timeout";
        case Status::refused:
            return "refused by the bus's policy";
        case Status::partner_lost:
            return "the partner is lost";
        case Status::remote_error:
            return "the partner answered with an error";
    }
    return "unknown status";
}

// ---- Partners ------------------------------------------------------------------------------

PelmarEndpoint::Partner::Partner() = default;
PelmarEndpoint::Partner::~Partner() = default;
PelmarEndpoint::Partner::Partner(const Partner&) = default;
PelmarEndpoint::Partner& PelmarEndpoint::Partner::operator=(const Partner&) = default;
PelmarEndpoint::Partner::Partner(Partner&&) noexcept = default;
PelmarEndpoint::Partner& PelmarEndpoint::Partner::operator=(Partner&&) noexcept = default;
PelmarEndpoint::Partner::Partner(std::shared_ptr<State> state) : m_state(std::move(state)) {}

const std::string& PelmarEndpoint::Partner::Name() const
{
    static const std::string nobody;
    return m_state != nullptr ? m_state->name : nobody;
}

bool PelmarEndpoint::Partner::IsReady() const
{
    return m_state != nullptr && m_state->ready;
}

bool PelmarEndpoint::Partner::IsDirect() const
{
    return m_state != nullptr && m_state->direct;
}

std::optional<uid_t> PelmarEndpoint::Partner::Uid() const
{
    return m_state != nullptr ? m_state->uid : std::nullopt;
}

std::optional<pid_t> PelmarEndpoint::Partner::Pid() const
{
    return m_state != nullptr ? m_state->pid : std::nullopt;
}

bool PelmarEndpoint::Partner::operator==(const Partner& other) const
{
    return m_state == other.m_state;
}

bool PelmarEndpoint::Partner::operator<(const Partner& other) const
{
    const auto number = [](const Partner& partner) {
        return partner.m_state != nullptr ? partner.m_state->number : 0;
    };
    return number(*this) < number(other);
}

std::size_t PelmarEndpoint::Partner::Hash() const
{
    return std::hash<std::shared_ptr<State>>()(m_state);
}

// ---- Replies and calls ---------------------------------------------------------------------

PelmarEndpoint::Reply::State::~State()
{
    if (const auto endpoint = impl.lock())
        endpoint->Fail(*this, "the message was not answered");
}

PelmarEndpoint::Reply::~Reply() = default;
PelmarEndpoint::Reply::Reply(const Reply&) = default;
PelmarEndpoint::Reply& PelmarEndpoint::Reply::operator=(const Reply&) = default;
PelmarEndpoint::Reply::Reply(Reply&&) noexcept = default;
PelmarEndpoint::Reply& PelmarEndpoint::Reply::operator=(Reply&&) noexcept = default;
PelmarEndpoint::Reply::Reply(std::shared_ptr<State> state) : m_state(std::move(state)) {}

void PelmarEndpoint::Reply::Send(Bytes data) const
{
    if (m_state == nullptr)
        return;
    if (const auto endpoint = m_state->impl.lock())
        endpoint->Send(*m_state, std::move(data));
}

void PelmarEndpoint::Reply::Fail(const std::string& text) const
{
    if (m_state == nullptr)
        return;
    if (const auto endpoint = m_state->impl.lock())
        endpoint->Fail(*m_state, text);
}

bool PelmarEndpoint::Reply::IsWanted() const
{
    const auto endpoint = m_state != nullptr ? m_state->impl.lock() : nullptr;
    return endpoint != nullptr && endpoint->IsWanted(*m_state);
}

PelmarEndpoint::Call::Call() = default;
PelmarEndpoint::Call::~Call() = default;
PelmarEndpoint::Call::Call(const Call&) = default;
PelmarEndpoint::Call& PelmarEndpoint::Call::operator=(const Call&) = default;
PelmarEndpoint::Call::Call(Call&&) noexcept = default;
PelmarEndpoint::Call& PelmarEndpoint::Call::operator=(Call&&) noexcept = default;
PelmarEndpoint::Call::Call(std::shared_ptr<State> state) : m_state(std::move(state)) {}

void PelmarEndpoint::Call::Cancel()
{
    if (m_state == nullptr)
        return;
    if (const auto endpoint = m_state->impl.lock())
        endpoint->Cancel(m_state->request);
}

// ---- The endpoint --------------------------------------------------------------------------

PelmarEndpoint::PelmarEndpoint(Role role, const std::string& channel)
{
    if (const std::string fault = FaultInChannelName(channel); !fault.empty())
        throw std::invalid_argument(fault);
    m_impl = std::make_shared<Impl>(role, channel);
}

PelmarEndpoint::~PelmarEndpoint()
{
    if (!Stop()) {
        // GCOVR_EXCL_START: a process that aborts writes no counts
        PELMAR_ERROR("An endpoint must not be destroyed inside one of its handlers\n\n",
                     PELMAR_AT(__func__));
        std::abort();
        // GCOVR_EXCL_STOP
    }
}

void PelmarEndpoint::OnMessage(std::function<Bytes(Message& message)> handler)
{
    m_impl->SettableHandlers().message = std::move(handler);
}

void PelmarEndpoint::OnDeferredMessage(std::function<void(Message& message, Reply reply)> handler)
{
    m_impl->SettableHandlers().deferred_message = std::move(handler);
}

void PelmarEndpoint::OnNotification(std::function<void(Message& message)> handler)
{
    m_impl->SettableHandlers().notification = std::move(handler);
}

void PelmarEndpoint::OnReady(std::function<void(const Partner& partner)> handler)
{
    m_impl->SettableHandlers().ready = std::move(handler);
}

void PelmarEndpoint::OnLost(std::function<void(const Partner& partner)> handler)
{
    m_impl->SettableHandlers().lost = std::move(handler);
}

void PelmarEndpoint::OnRoom(std::function<void(const Partner& partner)> handler)
{
    m_impl->SettableHandlers().room = std::move(handler);
}

void PelmarEndpoint::OnBusLost(std::function<void()> handler)
{
    m_impl->SettableHandlers().bus_lost = std::move(handler);
}

void PelmarEndpoint::OnBusBack(std::function<void()> handler)
{
    m_impl->SettableHandlers().bus_back = std::move(handler);
}

void PelmarEndpoint::OnProblem(std::function<void(Problem, const std::string& text)> handler)
{
    m_impl->SettableHandlers().problem = std::move(handler);
}

void PelmarEndpoint::RunHandlersIn(GMainContext* context)
{
    Impl::Settings& settings = m_impl->SettableSettings();
    GMainContext* chosen = context != nullptr ? context : g_main_context_default();
    settings.context.reset(g_main_context_ref(chosen), g_main_context_unref);
    settings.executor = nullptr;
}

void PelmarEndpoint::RunHandlersIn(std::function<void(std::function<void()>)> executor)
{
    Impl::Settings& settings = m_impl->SettableSettings();
    settings.executor = std::move(executor);
    settings.context.reset();
}

void PelmarEndpoint::SetWindow(std::size_t bytes)
{
    m_impl->SettableSettings().window = bytes;
}

void PelmarEndpoint::SetIntake(std::size_t bytes)
{
    m_impl->SettableSettings().intake = bytes;
}

void PelmarEndpoint::SetDirectPath(bool allowed)
{
    m_impl->SettableSettings().direct_path = allowed;
}

void PelmarEndpoint::SetBusAddress(const std::string& address)
{
    m_impl->SettableSettings().address = address;
}

void PelmarEndpoint::ExitWhenBusDies(bool exit)
{
    m_impl->SettableSettings().exit_when_bus_dies = exit;
}

void PelmarEndpoint::Start()
{
    m_impl->Start();
}

bool PelmarEndpoint::Stop(std::chrono::milliseconds flush)
{
    return m_impl->Stop(flush);
}

bool PelmarEndpoint::IsOnBus() const
{
    return m_impl->IsOnBus();
}

std::string PelmarEndpoint::Name() const
{
    return m_impl->Name();
}

std::vector<PelmarEndpoint::Partner> PelmarEndpoint::Partners() const
{
    return m_impl->Partners();
}

std::optional<PelmarEndpoint::Partner> PelmarEndpoint::WaitForPartner(
    std::chrono::steady_clock::time_point deadline) const
{
    return m_impl->WaitForPartner(deadline);
}

PelmarEndpoint::Status PelmarEndpoint::Notify(const Partner& partner, Bytes data)
{
    return m_impl->Notify(partner, std::move(data));
}

PelmarEndpoint::Broadcast PelmarEndpoint::NotifyAll(Bytes data)
{
    return m_impl->NotifyAll(std::move(data));
}

PelmarEndpoint::Response PelmarEndpoint::Request(const Partner& partner, Bytes data,
                                                 std::chrono::milliseconds timeout)
{
    return m_impl->Request(partner, std::move(data), timeout);
}

PelmarEndpoint::Call PelmarEndpoint::Request(const Partner& partner, Bytes data,
                                             std::chrono::milliseconds timeout,
                                             std::function<void(Response response)> done)
{
    return m_impl->Request(partner, std::move(data), timeout, std::move(done));
}
