// Calls of the application's handlers, as tasks. Internal.
#ifndef PELMAR_ENDPOINT_TASKS_H
#define PELMAR_ENDPOINT_TASKS_H

#include <exception>
#include <functional>
#include <memory>
#include <tuple>
#include <utility>

#include "endpoint-impl.h"

inline ChannelRole ChannelRoleOf(PelmarEndpoint::Role role)
{
    return role == PelmarEndpoint::Role::service ? ChannelRole::service : ChannelRole::client;
}

// `name` is the handler's. `text` is null for what is no std::exception.
void LogHandlerThrew(const char* name, const char* text);

// Calls the handler; what it throws is logged.
template <typename Function>
void CallGuarded(const char* name, const Function& function)
{
    try {
        function();
    } catch (const std::exception& exception) {
        LogHandlerThrew(name, exception.what());
    } catch (...) {
        LogHandlerThrew(name, nullptr);
    }
}

// News that are of no interest any more once the endpoint is stopped.
template <typename Function>
class NewsTask final : public HandlerTask {
public:
    NewsTask(const char* name, Function function) : m_name(name), m_function(std::move(function)) {}
    void Run() override { CallGuarded(m_name, m_function); }

private:
    const char* const m_name;
    const Function m_function;
};

template <typename... Parameters, typename... Arguments>
void PelmarEndpoint::Impl::Tell(const char* name, const std::function<void(Parameters...)>& handler,
                                Arguments... arguments)
{
    if (!handler || m_stopped)
        return;
    auto call = [&handler, values = std::make_tuple(std::move(arguments)...)] {
        std::apply(handler, values);
    };
    Post(std::make_unique<NewsTask<decltype(call)>>(name, std::move(call)));
}

#endif
