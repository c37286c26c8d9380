#include "async-calls.h"

#include <memory>
#include <utility>

void AsyncCalls::Start(GDBusConnection* connection, const BusMethod& method, GVariant* parameters,
                       const char* reply_type, int timeout, Done done)
{
    struct Call {
        AsyncCalls& calls;
        Done done;
    };
    const auto finish = [](GObject* source, GAsyncResult* result, gpointer user_data) {
        const std::unique_ptr<Call> call(static_cast<Call*>(user_data));
        --call->calls.m_pending;
        GError* error = nullptr;
        const VariantPtr reply(
            g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error));
        const ErrorPtr held(error);
        call->done(reply.get(), error);
    };
    ++m_pending;
    g_dbus_connection_call(connection, method.destination, method.path, method.interface,
                           method.name, parameters,
                           reply_type != nullptr ? G_VARIANT_TYPE(reply_type) : nullptr,
                           G_DBUS_CALL_FLAGS_NO_AUTO_START, timeout, m_cancellation.get(), finish,
                           new Call{*this, std::move(done)});
}
