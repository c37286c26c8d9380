// serve and connect: one end of a channel for as long as it is wanted.

#include <glib-unix.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <nlohmann/json.hpp>

#include "command-line.h"
#include "command-pool.h"
#include "session.h"

namespace {

struct ServeOptions {
    std::string channel;
    ChannelRole role = ChannelRole::service;
    bool echo = false;
    std::string exec;
    std::optional<double> exec_timeout;
    std::size_t exec_max = PelmarEndpoint::MAX_BUS_MESSAGE_BYTES;
    std::size_t jobs = 4;
    Format format = Format::automatic;
};

// What happens on the channel, on standard output or standard error as it is wanted there. Used by
// the main thread.
class Events {
public:
    Events(const Output& output, Format format) : m_output(output), m_format(format) {}

    void Arrived(const char* kind, const Bytes& data) const
    {
        if (!m_output.IsJson()) {
            m_output.WriteData(data, m_format);
            return;
        }
        Json record = RecordOf(kind);
        AddBytes(record, data);
        m_output.Write(record);
    }

    void Partner(const char* event, const PelmarEndpoint::Partner& partner) const
    {
        m_output.Note(partner.Name() + " is " + event);
        if (!m_output.IsJson())
            return;
        Json record = RecordOf(event);
        record["partner"] = partner.Name();
        m_output.Write(record);
    }

    void Executed(std::size_t size, const CommandResult& result) const
    {
        const std::string what = "a message of " + Count(size, "byte");
        if (result.error.empty())
            m_output.Detail("answered " + what + " with " + Count(result.output.size(), "byte"));
        else
            m_output.Note("failed " + what + ": " + result.error);
        if (!m_output.IsJson())
            return;
        Json record = RecordOf("executed");
        record["size"] = size;
        if (result.error.empty())
            record["reply_size"] = result.output.size();
        else
            record["error"] = result.error;
        m_output.Write(record);
    }

    void NotSent(const std::string& line, const std::string& reason) const
    {
        m_output.Error("'" + Printable(line) + "' was not sent" + reason);
    }

private:
    static Json RecordOf(const char* event)
    {
        Json record = JsonRecord();
        record["event"] = event;
        return record;
    }

    const Output& m_output;
    const Format m_format;
};

// Standard input, line by line, as the queue's tasks.
class TypedLines {
public:
    using Take = std::function<void(const std::string& line)>;

    TypedLines(EventQueue& queue, Take take, EventQueue::Task end)
        : m_queue(queue),
          m_take(std::move(take)),
          m_end(std::move(end)),
          m_source(g_unix_fd_source_new(STDIN_FILENO,
                                        static_cast<GIOCondition>(G_IO_IN | G_IO_HUP | G_IO_ERR)))
    {
        g_source_set_callback(m_source.get(), G_SOURCE_FUNC(cb_Readable), this, nullptr);
        g_source_attach(m_source.get(), nullptr);
    }

private:
    static gboolean cb_Readable(gint descriptor, GIOCondition /*condition*/, gpointer lines)
    {
        auto& self = *static_cast<TypedLines*>(lines);
        std::array<char, 4096> buffer{};
        const ssize_t count = read(descriptor, buffer.data(), buffer.size());
        if (count < 0 && (errno == EINTR || errno == EAGAIN))
            return G_SOURCE_CONTINUE;
        if (count <= 0) {
            if (!self.m_unfinished.empty())
                self.PostLine(self.m_unfinished);
            self.m_queue.Post(self.m_end);
            return G_SOURCE_REMOVE;
        }
        self.m_unfinished.append(buffer.data(), static_cast<std::size_t>(count));
        self.PostWholeLines();
        return G_SOURCE_CONTINUE;
    }

    void PostWholeLines()
    {
        for (;;) {
            const std::size_t end = m_unfinished.find('\n');
            if (end == std::string::npos)
                return;
            PostLine(m_unfinished.substr(0, end));
            m_unfinished.erase(0, end + 1);
        }
    }

    void PostLine(const std::string& line)
    {
        m_queue.Post([this, line] { m_take(line); });
    }

    EventQueue& m_queue;
    const Take m_take;
    const EventQueue::Task m_end;
    SourcePtr m_source;
    std::string m_unfinished;
};

std::unique_ptr<CommandPool> MakePool(Tool& tool, const ServeOptions& options, const Events& events)
{
    if (options.exec.empty())
        return nullptr;
    const CommandLimits limits = {Milliseconds(options.exec_timeout.value_or(30)),
                                  options.exec_max};
    return std::make_unique<CommandPool>(
        options.exec, limits, options.jobs, [&](std::size_t size, const CommandResult& result) {
            tool.queue.Post([&events, size, result] { events.Executed(size, result); });
        });
}

void SetHandlers(Session& session, Tool& tool, const ServeOptions& options, const Events& events,
                 CommandPool* pool)
{
    using Message = PelmarEndpoint::Message;
    const auto arrived = [&](const char* kind, Message& message) {
        tool.queue.Post(
            [&events, kind, data = std::move(message.data)] { events.Arrived(kind, data); });
    };
    PelmarEndpoint& endpoint = session.Endpoint();
    endpoint.OnNotification([arrived](Message& message) { arrived("notification", message); });
    session.OnReady([&](const auto& partner) { events.Partner("ready", partner); });
    session.OnLost([&](const auto& partner) { events.Partner("lost", partner); });
    if (pool != nullptr)
        endpoint.OnDeferredMessage([pool](Message& message, const PelmarEndpoint::Reply& reply) {
            pool->Submit(std::move(message.data), reply);
        });
    else if (options.echo)
        endpoint.OnMessage([](Message& message) { return std::move(message.data); });
    else
        endpoint.OnMessage([arrived](Message& message) {
            arrived("message", message);
            return Bytes();
        });
}

void NotifyAll(PelmarEndpoint& endpoint, const std::string& line, const Events& events)
{
    const auto broadcast = endpoint.NotifyAll(Bytes(line.begin(), line.end()));
    if (broadcast.sent == 0 && broadcast.missed.empty())
        events.NotSent(line, ": no partner is ready");
    for (const PelmarEndpoint::Missed& missed : broadcast.missed)
        events.NotSent(
            line, " to " + missed.partner.Name() + ": " + PelmarEndpoint::ToString(missed.status));
}

Exit Serve(Tool& tool, const ServeOptions& options)
{
    const Events events(tool.output, options.format);
    // The pool before the session: the endpoint hands messages to it until it has stopped.
    const std::unique_ptr<CommandPool> pool = MakePool(tool, options, events);
    Session session(tool, options.channel, options.role);
    SetHandlers(session, tool, options, events, pool.get());
    session.Start();
    tool.output.Note("on channel " + options.channel + " as " + NameOf(options.role) + " " +
                     session.Endpoint().Name());
    bool is_over = false;
    const TypedLines lines(
        tool.queue, [&](const std::string& line) { NotifyAll(session.Endpoint(), line, events); },
        // Who types ends the program so; a service whose input is /dev/null goes on.
        [&] { is_over = isatty(STDIN_FILENO) == 1; });
    tool.queue.Wait([&] { return is_over; }, tool.OptionalDeadline());
    return Exit::ok;
}

void AddRoleCommand(CLI::App& app, Command& chosen, const std::string& name,
                    const std::string& description, const std::string& example, ChannelRole role)
{
    const auto options = std::make_shared<ServeOptions>();
    options->role = role;
    CLI::App* command = AddCommand(app, chosen, name, description, example, options, Serve);
    AddChannel(*command, options->channel)->required();
    CLI::Option* echo =
        command->add_flag("--echo", options->echo, "Answer each message with itself");
    CLI::Option* exec =
        command
            ->add_option("--exec", options->exec,
                         "Answer each message with what this shell command makes of it")
            ->option_text("COMMAND")
            ->check([](const std::string& given) {
                return std::string(given.empty() ? "the command is empty" : "");
            })
            ->excludes(echo);
    AddSeconds(*command, "--exec-timeout", options->exec_timeout, 0.001,
               "How long the command may take; by default 30")
        ->needs(exec);
    AddCount(*command, "--exec-max", options->exec_max, 0, PelmarEndpoint::MAX_BUS_MESSAGE_BYTES,
             "Bytes that the command may write; by default what fits into a message")
        ->option_text("BYTES")
        ->needs(exec);
    AddCount(*command, "--jobs", options->jobs, 1, 64,
             "How many commands may run at the same time; by default 4")
        ->option_text("COUNT")
        ->needs(exec);
    AddFormat(*command, options->format);
}

}  // namespace

void AddServe(CLI::App& app, Command& chosen)
{
    AddRoleCommand(app, chosen, "serve", "Be the service of a channel",
                   "pelmarctl serve demo --exec sha256sum", ChannelRole::service);
}

void AddConnect(CLI::App& app, Command& chosen)
{
    AddRoleCommand(app, chosen, "connect", "Be a client of a channel",
                   "pelmarctl connect demo --echo", ChannelRole::client);
}
