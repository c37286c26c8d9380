// Any words as the arguments of pelmarctl, a line each. What they ask for is not done.

#include "input.h"
#include "program-options.h"

namespace {

// Up to a NUL each, as the arguments of a program are.
std::vector<std::string> Words(Input& input)
{
    std::vector<std::string> words{"pelmarctl"};
    while (!input.Empty()) {
        std::string word;
        for (char byte = 0; !input.Empty() && (byte = static_cast<char>(input.Byte())) != '\n';)
            word += byte;
        words.push_back(word.c_str());
    }
    return words;
}

void ExpectUsageText(const CLI::App& app, const CLI::ParseError& error)
{
    if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success))
        return;
    const std::string text = Printable(UsageFault(app, error));
    FUZZ_ASSERT(!text.empty());
    FUZZ_ASSERT(text.find_first_of("\n\r\x1b") == std::string::npos);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Input input(data, size);
    std::vector<std::string> words = Words(input);
    std::vector<const char*> argv;
    for (const std::string& word : words)
        argv.push_back(word.c_str());

    Tool tool;
    GlobalOptions options;
    Command chosen;
    CLI::App app("", "pelmarctl");
    AddCommandLine(app, options, tool, chosen);
    try {
        app.parse(static_cast<int>(argv.size()), argv.data());
        FUZZ_ASSERT(chosen);
    } catch (const CLI::ParseError& error) {
        ExpectUsageText(app, error);
    }
    return 0;
}
