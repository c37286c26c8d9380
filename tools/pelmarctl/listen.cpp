// listen: prints the notifications that come.

#include <limits>
#include <nlohmann/json.hpp>

#include "command-line.h"
#include "session.h"

namespace {

struct ListenOptions {
    std::string channel;
    ChannelRole role = ChannelRole::client;
    Format format = Format::automatic;
    std::size_t count = 0;
};

Exit Listen(Tool& tool, const ListenOptions& options)
{
    std::size_t seen = 0;
    const auto is_done = [&] { return options.count != 0 && seen == options.count; };
    const auto show = [&](const Bytes& data) {
        if (is_done())
            return;
        ++seen;
        if (tool.output.IsJson()) {
            Json record = JsonRecord();
            record["event"] = "notification";
            AddBytes(record, data);
            tool.output.Write(record);
        } else {
            tool.output.WriteData(data, options.format);
        }
    };
    Session session(tool, options.channel, options.role);
    session.Endpoint().OnNotification([&](PelmarEndpoint::Message& message) {
        tool.queue.Post([&show, data = std::move(message.data)] { show(data); });
    });
    session.OnReady([&](const PelmarEndpoint::Partner& partner) {
        tool.output.Note("listening to " + partner.Name());
    });
    session.OnLost([&](const PelmarEndpoint::Partner& partner) {
        tool.output.Note(partner.Name() + " is lost");
    });
    session.Start();
    tool.output.Note("on channel " + options.channel + " as " + NameOf(options.role) + " " +
                     session.Endpoint().Name());
    if (!tool.queue.Wait(is_done, tool.OptionalDeadline()) && options.count != 0)
        throw Failure(Exit::timeout, "only " + std::to_string(seen) + " of " +
                                         Count(options.count, "notification") +
                                         " came within the timeout");
    return Exit::ok;
}

}  // namespace

void AddListen(CLI::App& app, Command& chosen)
{
    const auto options = std::make_shared<ListenOptions>();
    CLI::App* command = AddCommand(app, chosen, "listen", "Print the notifications that come",
                                   "pelmarctl listen demo -n 1", options, Listen);
    AddChannel(*command, options->channel)->required();
    AddCount(*command, "-n,--count", options->count, 1, std::numeric_limits<std::size_t>::max(),
             "End after this many")
        ->option_text("COUNT");
    AddFormat(*command, options->format);
    AddRole(*command, options->role);
}
