// Output of sensorctl: every byte goes through a sink that writes to a file descriptor and turns a
// failed or short write into an IoError, so a full disk or a closed pipe is reported, not ignored.
#ifndef SENSORCTL_SINK_H
#define SENSORCTL_SINK_H

#include <fmt/format.h>

#include <string>
#include <string_view>
#include <utility>

namespace sensorctl {

class Sink {
public:
    Sink(int fd, std::string name) : m_fd(fd), m_name(std::move(name)) {}
    Sink(const Sink&) = delete;
    Sink& operator=(const Sink&) = delete;

    void write(std::string_view text);
    template <typename... Args>
    void print(fmt::format_string<Args...> format, Args&&... args) {
        write(fmt::format(format, std::forward<Args>(args)...));
    }
    bool isTerminal() const;
    int fd() const { return m_fd; }

private:
    int m_fd;
    std::string m_name;
};

// The tool's two streams. Standard output is a private copy of file descriptor 1 taken at start-up:
// descriptor 1 itself is pointed at standard error, so that the library's own console messages never
// mix with the tool's output (tables, JSON).
struct Output {
    Sink& out;
    Sink& err;
};

// Writes a whole file (replacing it); throws IoError when it cannot be written completely.
void writeFile(const std::string& path, std::string_view text);

// Takes descriptor 1 for the tool and points it at standard error; returns the two sinks.
Output setUpOutput();

}  // namespace sensorctl

#endif  // SENSORCTL_SINK_H
