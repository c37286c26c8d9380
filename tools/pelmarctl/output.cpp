#include "output.h"

#include <fcntl.h>
#include <glib.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>

#include "failure.h"

namespace {

constexpr int SCHEMA = 1;
constexpr std::size_t BYTES_A_ROW = 16;

// No exception: standard error may be gone as well.
void WriteError(const std::string& text)
{
    const ssize_t ignored = write(STDERR_FILENO, text.data(), text.size());
    static_cast<void>(ignored);
}

void WriteAll(const char* data, std::size_t size)
{
    while (size > 0) {
        const ssize_t count = write(STDOUT_FILENO, data, size);
        if (count >= 0) {
            data += count;
            size -= static_cast<std::size_t>(count);
        } else if (errno == EAGAIN) {
            pollfd writable{STDOUT_FILENO, POLLOUT, 0};
            poll(&writable, 1, -1);
        } else if (errno != EINTR) {
            throw Failure(Exit::failure,
                          std::string("cannot write to standard output: ") + std::strerror(errno));
        }
    }
}

const char* CodeOf(Colour colour)
{
    switch (colour) {
        case Colour::good:
            return "\033[32m";
        case Colour::bad:
            return "\033[1;31m";
        case Colour::doubtful:
            return "\033[33m";
        case Colour::plain:
            break;
    }
    return "";
}

bool IsShownAsItIs(char byte)
{
    return g_ascii_isprint(byte) != FALSE;
}

std::string Row(const char* data, std::size_t count, std::size_t offset)
{
    std::array<char, 24> digits{};
    std::snprintf(digits.data(), digits.size(), "%08zx ", offset);
    std::string row(digits.data());
    for (std::size_t i = 0; i < BYTES_A_ROW; ++i) {
        if (i == BYTES_A_ROW / 2)
            row += ' ';
        std::snprintf(digits.data(), digits.size(), " %02x",
                      i < count ? static_cast<unsigned>(data[i]) & 0xffU : 0U);
        row += i < count ? digits.data() : "   ";
    }
    row += "  |";
    for (std::size_t i = 0; i < count; ++i)
        row += IsShownAsItIs(data[i]) ? data[i] : '.';
    return row + "|\n";
}

std::size_t WidthOf(const std::string& cell)
{
    return static_cast<std::size_t>(g_utf8_strlen(cell.c_str(), -1));
}

}  // namespace

Json JsonRecord()
{
    return Json{{"schema", SCHEMA}};
}

void AddBytes(Json& record, const Bytes& data)
{
    record["size"] = data.size();
    const std::unique_ptr<char, decltype(&g_free)> base64(
        g_base64_encode(reinterpret_cast<const guchar*>(data.data()), data.size()), g_free);
    record["base64"] = base64.get();
    if (g_utf8_validate(data.data(), static_cast<gssize>(data.size()), nullptr) != FALSE)
        record["text"] = std::string(data.begin(), data.end());
}

std::string HexDump(const Bytes& data)
{
    std::string dump;
    for (std::size_t offset = 0; offset < data.size(); offset += BYTES_A_ROW)
        dump += Row(data.data() + offset, std::min(BYTES_A_ROW, data.size() - offset), offset);
    std::array<char, 24> digits{};
    std::snprintf(digits.data(), digits.size(), "%08zx\n", data.size());
    return dump + digits.data();
}

std::string Count(std::size_t count, const std::string& noun)
{
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

std::string Joined(const std::vector<std::string>& texts)
{
    std::string joined;
    for (const std::string& text : texts)
        joined += (joined.empty() ? "" : ", ") + text;
    return joined;
}

std::string Printable(const std::string& text)
{
    const std::unique_ptr<char, decltype(&g_free)> valid(
        g_utf8_make_valid(text.data(), static_cast<gssize>(text.size())), g_free);
    std::string printable(valid.get());
    std::replace_if(
        printable.begin(), printable.end(),
        [](char byte) { return g_ascii_iscntrl(byte) != FALSE; }, ' ');
    return printable;
}

std::string Table(const std::vector<std::vector<std::string>>& rows)
{
    std::vector<std::size_t> widths;
    for (const auto& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths[i], WidthOf(row[i]));
    }
    std::string text;
    for (const auto& row : rows) {
        for (std::size_t i = 0; i + 1 < row.size(); ++i)
            text += row[i] + std::string(widths[i] - WidthOf(row[i]) + 2, ' ');
        text += row.back() + "\n";
    }
    return text;
}

void Output::Configure(bool json, Level level, ColourMode colour)
{
    const char* no_color = std::getenv("NO_COLOR");
    const char* terminal = std::getenv("TERM");
    const bool wanted = (no_color == nullptr || *no_color == '\0') &&
                        (terminal == nullptr || std::strcmp(terminal, "dumb") != 0);
    const auto paint = [&](int descriptor) {
        return colour == ColourMode::always ||
               (colour == ColourMode::automatic && wanted && isatty(descriptor) == 1);
    };
    m_json = json;
    m_level = level;
    m_paint_output = paint(STDOUT_FILENO);
    m_paint_errors = paint(STDERR_FILENO);
}

void Output::Write(const Bytes& data) const
{
    WriteAll(data.data(), data.size());
}

void Output::Write(const std::string& text) const
{
    WriteAll(text.data(), text.size());
}

void Output::Write(const Json& record) const
{
    Write(record.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n");
}

void Output::WriteData(const Bytes& data, Format format) const
{
    if (format == Format::automatic)
        format = isatty(STDOUT_FILENO) == 1 ? Format::hex : Format::raw;
    if (format == Format::hex) {
        Write(HexDump(data));
        return;
    }
    Write(data);
    if (format == Format::line)
        Write(std::string("\n"));
}

std::string Output::Paint(Colour colour, const std::string& text) const
{
    return m_paint_output && colour != Colour::plain ? CodeOf(colour) + text + "\033[0m" : text;
}

void Output::Error(const std::string& text) const
{
    const std::string name = "pelmarctl: ";
    WriteError((m_paint_errors ? CodeOf(Colour::bad) + name + "\033[0m" : name) + text + "\n");
}

void Output::Note(const std::string& text) const
{
    if (m_level != Level::quiet)
        WriteError("pelmarctl: " + text + "\n");
}

void Output::Detail(const std::string& text) const
{
    if (m_level == Level::verbose)
        WriteError("pelmarctl: " + text + "\n");
}

void KeepStandardDescriptors()
{
    // The wrong way round, so that using them is still the error that it was.
    const std::array<int, 3> modes = {O_WRONLY, O_RDONLY, O_RDONLY};
    for (int descriptor = 0; descriptor < 3; ++descriptor) {
        if (fcntl(descriptor, F_GETFD) < 0)
            static_cast<void>(open("/dev/null", modes[static_cast<std::size_t>(descriptor)]));
    }
}
