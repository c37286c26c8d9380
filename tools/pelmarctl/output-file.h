// A file that a command's result goes to: the whole result, or the file stays as it was.
#ifndef PELMARCTL_OUTPUT_FILE_H
#define PELMARCTL_OUTPUT_FILE_H

#include <string>

#include "output.h"

class OutputFile {
public:
    // Empty: none. Throws Failure when it cannot be written.
    explicit OutputFile(const std::string& name);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    bool IsOpen() const { return m_descriptor >= 0; }
    void Write(const Bytes& data);

    // Puts the result in place.
    void Finish();

private:
    [[noreturn]] void Fail() const;

    const std::string m_name;
    std::string m_temporary;  // empty: written in place, which a device or a pipe has to be
    int m_descriptor = -1;
};

#endif
