// What the program writes: data on standard output, everything else on standard error.
#ifndef PELMARCTL_OUTPUT_H
#define PELMARCTL_OUTPUT_H

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

using Bytes = std::vector<char>;

// Keeps the order in which the members are added.
using Json = nlohmann::ordered_json;

// A JSON object with the schema's version as its first member.
Json JsonRecord();

// "base64", and "text" where the bytes are text.
void AddBytes(Json& record, const Bytes& data);

// As hexdump -C shows it.
std::string HexDump(const Bytes& data);

// "1 message", "2 messages".
std::string Count(std::size_t count, const std::string& noun);

// "a, b, c".
std::string Joined(const std::vector<std::string>& texts);

// With what would confuse a terminal or break the line replaced.
std::string Printable(const std::string& text);

// Rows of columns, each as wide as its widest cell; the first row is the heading.
std::string Table(const std::vector<std::vector<std::string>>& rows);

// How bytes are shown.
enum class Format {
    automatic,  // hex on a terminal, raw elsewhere
    raw,        // the bytes and nothing else
    line,       // the bytes and a newline
    hex,
};

enum class Colour { plain, good, bad, doubtful };

class Output {
public:
    enum class ColourMode { automatic, always, never };
    enum class Level { quiet, normal, verbose };

    void Configure(bool json, Level level, ColourMode colour);
    bool IsJson() const { return m_json; }

    // To standard output, at once. Throws Failure when it cannot be written.
    void Write(const Bytes& data) const;
    void Write(const std::string& text) const;
    void Write(const Json& record) const;
    void WriteData(const Bytes& data, Format format) const;

    // Paints text for standard output.
    std::string Paint(Colour colour, const std::string& text) const;

    // To standard error: what went wrong; what goes on, unless -q; the same in detail with -v.
    void Error(const std::string& text) const;
    void Note(const std::string& text) const;
    void Detail(const std::string& text) const;

private:
    bool m_json = false;
    Level m_level = Level::normal;
    bool m_paint_output = false;
    bool m_paint_errors = false;
};

// A descriptor that was closed by the caller would be given to the next file or socket, and what is
// meant for standard output would go there.
void KeepStandardDescriptors();

#endif
