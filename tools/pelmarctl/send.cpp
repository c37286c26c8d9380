// send: one message to a partner, or to all, and the reply.

#include <nlohmann/json.hpp>

#include "command-line.h"
#include "output-file.h"
#include "payload.h"
#include "session.h"

namespace {

struct SendOptions {
    std::string channel;
    PayloadOptions payload;
    ChannelRole role = ChannelRole::client;
    std::string to;
    bool all = false;
    std::string output;
    Format format = Format::automatic;
};

Json RecordOf(const PelmarEndpoint::Partner& partner, const PelmarEndpoint::Response& response)
{
    Json record = JsonRecord();
    record["partner"] = partner.Name();
    record["status"] = PelmarEndpoint::ToString(response.status);
    if (response.status == PelmarEndpoint::Status::ok)
        AddBytes(record, response.data);
    else
        record["error"] = response.error;
    return record;
}

void Show(const Tool& tool, const SendOptions& options, OutputFile& file,
          const PelmarEndpoint::Partner& partner, const PelmarEndpoint::Response& response)
{
    if (tool.output.IsJson())
        tool.output.Write(RecordOf(partner, response));
    if (response.status != PelmarEndpoint::Status::ok)
        return;
    if (file.IsOpen())
        file.Write(response.data);
    else if (!tool.output.IsJson())
        tool.output.WriteData(response.data, options.format);
}

Exit Send(Tool& tool, const SendOptions& options)
{
    const Bytes data = ReadPayload(options.payload);
    OutputFile file(options.output);
    Session session(tool, options.channel, options.role);
    session.Start();
    const auto partners = session.AwaitPartners(options.to, options.all);
    const auto responses = session.Request(data, partners, tool.Timeout());
    for (std::size_t i = 0; i < partners.size(); ++i)
        Show(tool, options, file, partners[i], responses[i]);
    for (std::size_t i = 0; i < partners.size(); ++i)
        Require(responses[i].status, partners[i], responses[i].error);
    file.Finish();
    return Exit::ok;
}

struct NotifyOptions {
    std::string channel;
    PayloadOptions payload;
    ChannelRole role = ChannelRole::client;
    std::string to;
    bool all = false;
};

Exit Notify(Tool& tool, const NotifyOptions& options)
{
    const Bytes data = ReadPayload(options.payload);
    Session session(tool, options.channel, options.role);
    session.Start();
    for (const auto& partner : session.AwaitPartners(options.to, options.all)) {
        Require(session.Endpoint().Notify(partner, data), partner, "");
        if (tool.output.IsJson()) {
            Json record = JsonRecord();
            record["partner"] = partner.Name();
            record["size"] = data.size();
            tool.output.Write(record);
        }
    }
    // Until now it is on its way.
    session.Endpoint().Stop(tool.Timeout());
    return Exit::ok;
}

template <typename Options>
void AddTarget(CLI::App& command, Options& options)
{
    AddPayload(command, options.payload);
    CLI::Option* to = command.add_option("--to", options.to, "To the partner of this bus name")
                          ->option_text("NAME");
    command.add_flag("--all", options.all, "To every partner that is there")->excludes(to);
    AddRole(command, options.role);
}

}  // namespace

void AddSend(CLI::App& app, Command& chosen)
{
    const auto options = std::make_shared<SendOptions>();
    CLI::App* command = AddCommand(app, chosen, "send", "Send a message and print the reply",
                                   "pelmarctl send demo -f FILE", options, Send);
    AddChannel(*command, options->channel)->required();
    AddTarget(*command, *options);
    command->add_option("-o,--output", options->output, "Write the reply to FILE")
        ->option_text("FILE");
    AddFormat(*command, options->format);
}

void AddNotify(CLI::App& app, Command& chosen)
{
    const auto options = std::make_shared<NotifyOptions>();
    CLI::App* command = AddCommand(app, chosen, "notify", "Send a notification, which has no reply",
                                   "pelmarctl notify demo -m 'hello' --all", options, Notify);
    AddChannel(*command, options->channel)->required();
    AddTarget(*command, *options);
}
