#include "output-file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "failure.h"

namespace {

// What a file that is made in the ordinary way would get.
mode_t UsualMode()
{
    const mode_t mask = umask(0);
    umask(mask);
    return 0666 & ~mask;
}

}  // namespace

OutputFile::OutputFile(const std::string& name) : m_name(name)
{
    if (name.empty())
        return;
    struct stat existing = {};
    const bool exists = stat(name.c_str(), &existing) == 0;
    if (exists && !S_ISREG(existing.st_mode)) {
        m_descriptor = open(name.c_str(), O_WRONLY | O_CLOEXEC);
    } else {
        m_temporary = name + ".XXXXXX";
        m_descriptor = mkostemp(m_temporary.data(), O_CLOEXEC);
    }
    if (m_descriptor < 0) {
        m_temporary.clear();
        Fail();
    }
    if (!m_temporary.empty())
        fchmod(m_descriptor, exists ? existing.st_mode : UsualMode());
}

OutputFile::~OutputFile()
{
    if (m_descriptor >= 0)
        close(m_descriptor);
    if (!m_temporary.empty())
        unlink(m_temporary.c_str());
}

void OutputFile::Fail() const
{
    throw Failure(Exit::failure, "cannot write '" + m_name + "': " + std::strerror(errno));
}

void OutputFile::Write(const Bytes& data)
{
    std::size_t written = 0;
    while (written < data.size()) {
        const ssize_t count = write(m_descriptor, data.data() + written, data.size() - written);
        if (count >= 0)
            written += static_cast<std::size_t>(count);
        else if (errno != EINTR)
            Fail();
    }
}

void OutputFile::Finish()
{
    if (m_temporary.empty())
        return;
    if (std::rename(m_temporary.c_str(), m_name.c_str()) != 0)
        Fail();
    m_temporary.clear();
}
