#include "payload.h"

#include <fcntl.h>
#include <glib.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "failure.h"
#include "pelmar-endpoint.h"

namespace {

class InputFile {
public:
    explicit InputFile(const std::string& name)
        : m_name(name == "-" ? "standard input" : "'" + name + "'"),
          m_descriptor(name == "-" ? STDIN_FILENO : open(name.c_str(), O_RDONLY | O_CLOEXEC))
    {
        if (m_descriptor < 0)
            Fail();
    }
    ~InputFile()
    {
        if (m_descriptor != STDIN_FILENO)
            close(m_descriptor);
    }
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;

    // Stops when there is more than `most`.
    Bytes Read(std::size_t most) const
    {
        Bytes data;
        std::array<char, 65536> buffer{};
        while (data.size() <= most) {
            const ssize_t count = read(m_descriptor, buffer.data(), buffer.size());
            if (count == 0)
                break;
            if (count > 0)
                data.insert(data.end(), buffer.data(), buffer.data() + count);
            else if (errno != EINTR)
                Fail();
        }
        return data;
    }

private:
    [[noreturn]] void Fail() const
    {
        throw Failure(Exit::failure, "cannot read " + m_name + ": " + std::strerror(errno));
    }

    const std::string m_name;
    const int m_descriptor;
};

Bytes Unhex(const Bytes& text)
{
    Bytes data;
    int high = -1;
    for (const char character : text) {
        if (g_ascii_isspace(character))
            continue;
        const int digit = g_ascii_xdigit_value(character);
        if (digit < 0)
            throw Failure(Exit::usage,
                          "--hex: '" + Printable({character}) + "' is no hexadecimal digit");
        if (high >= 0)
            data.push_back(static_cast<char>(high * 16 + digit));
        high = high >= 0 ? -1 : digit;
    }
    if (high >= 0)
        throw Failure(Exit::usage, "--hex: the number of digits is odd: a byte has two");
    return data;
}

}  // namespace

void AddPayload(CLI::App& command, PayloadOptions& options)
{
    options.text_option =
        command.add_option("-m,--message", options.text, "Send this text")->option_text("TEXT");
    command
        .add_option("-f,--file", options.file, "Send this file; - is standard input, the default")
        ->option_text("FILE")
        ->excludes(options.text_option);
    command.add_flag("--hex", options.hex, "What is to be sent is given in hexadecimal");
}

Bytes ReadPayload(const PayloadOptions& options)
{
    constexpr std::size_t most = PelmarEndpoint::MAX_BUS_MESSAGE_BYTES;
    // Hexadecimal with a space after every byte and a little more.
    const std::size_t most_read = options.hex ? 4 * most : most;
    Bytes data = options.text_option->count() > 0 ? Bytes(options.text.begin(), options.text.end())
                                                  : InputFile(options.file).Read(most_read);
    const bool cut = data.size() > most_read;
    if (options.hex)
        data = Unhex(data);
    if (cut || data.size() > most)
        throw Failure(Exit::too_large, "the message has more than " + std::to_string(most) +
                                           " bytes, which is what the bus takes");
    return data;
}
