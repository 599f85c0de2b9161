// Checked writes to file descriptors.
#include "sink.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "errors.h"

namespace sensorctl {

void Sink::write(std::string_view text) {
    while (!text.empty()) {
        const ssize_t n = ::write(m_fd, text.data(), text.size());
        if (n < 0 && errno == EINTR) continue;
        // A reader that went away (sensorctl sensors | head) is no failure worth a message.
        if (n < 0 && errno == EPIPE) throw ToolError(kExitIo, "");
        if (n < 0) throw IoError(fmt::format("cannot write to {}: {}", m_name, std::strerror(errno)));
        if (n == 0) throw IoError(fmt::format("cannot write to {}: short write", m_name));
        text.remove_prefix(static_cast<size_t>(n));
    }
}

bool Sink::isTerminal() const {
    return ::isatty(m_fd) == 1;
}

void writeFile(const std::string& path, std::string_view text) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) throw IoError(fmt::format("cannot create {}: {}", path, std::strerror(errno)));
    Sink file(fd, path);
    // A file that could not be written whole is removed: no partial file is left behind.
    try {
        file.write(text);
    } catch (const IoError&) {
        ::close(fd);
        ::unlink(path.c_str());
        throw;
    }
    if (::close(fd) != 0) {
        const int error = errno;
        ::unlink(path.c_str());
        throw IoError(fmt::format("cannot write {}: {}", path, std::strerror(error)));
    }
}

Output setUpOutput() {
    // Flush what stdio may hold before descriptor 1 changes meaning.
    std::fflush(stdout);
    int outFd = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    if (outFd < 0 || ::dup2(STDERR_FILENO, STDOUT_FILENO) < 0) {
        // Without a private copy the tool still works; library messages then share standard output.
        if (outFd >= 0) ::close(outFd);
        outFd = STDOUT_FILENO;
    }
    static Sink out(outFd, "standard output");
    static Sink err(STDERR_FILENO, "standard error");
    return Output{out, err};
}

}  // namespace sensorctl
