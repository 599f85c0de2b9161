// Failures of a sensorctl command and the exit status each one ends the process with.
#ifndef SENSORCTL_ERRORS_H
#define SENSORCTL_ERRORS_H

#include <cstdint>
#include <stdexcept>
#include <string>

namespace sensorctl {

// Exit statuses. kExitStatusTable below is their one description: `sensorctl --help` prints it, the man
// page is made from that, and docs/sensorctl.md carries the same table (a test compares them).
enum ExitCode : int {
    kExitOk = 0,
    kExitLibrary = 1,       // failed: a library call answered a failure code
    kExitUsage = 2,         // usage: bad command line or arguments, or a file they name that cannot be used
    kExitIo = 3,            // failed: a file could not be read or written, or is shorter than it must be
    kExitTimeout = 4,       // failed: the connection or the frames asked for did not come in time
    kExitUnavailable = 5,   // unavailable: the vehicle asked for does not answer, or went away
    kExitInterrupted = 130  // interrupted: Ctrl-C while waiting for a connection or for frames
};

// "Exit status:" and one line per status, as `sensorctl --help` ends.
extern const char* const kExitStatusTable;

// A failure with the exit status it maps to; what() is the whole message without the "sensorctl: " prefix.
class ToolError : public std::runtime_error {
public:
    ToolError(ExitCode code, const std::string& message) : std::runtime_error(message), m_code(code) {}
    ExitCode code() const { return m_code; }

private:
    ExitCode m_code;
};

class UsageError : public ToolError {
public:
    explicit UsageError(const std::string& message) : ToolError(kExitUsage, message) {}
};

class IoError : public ToolError {
public:
    explicit IoError(const std::string& message) : ToolError(kExitIo, message) {}
};

class TimeoutError : public ToolError {
public:
    explicit TimeoutError(const std::string& message) : ToolError(kExitTimeout, message) {}
};

class UnavailableError : public ToolError {
public:
    explicit UnavailableError(const std::string& message) : ToolError(kExitUnavailable, message) {}
};

class InterruptedError : public ToolError {
public:
    InterruptedError() : ToolError(kExitInterrupted, "interrupted") {}
};

// A library call that answered a failure: "<call> failed: RESULT_NAME (code)".
class LibraryError : public ToolError {
public:
    LibraryError(const std::string& call, int32_t result);
    LibraryError(const std::string& call, int32_t result, const std::string& context);
    int32_t result() const { return m_result; }

private:
    int32_t m_result;
};

// "sensor-simd at <socket> does not answer: <cause>", from the simulator's "<socket>: <cause>".
std::string serviceProblem(const std::string& socket, const std::string& problem);

// Throws LibraryError unless result is 0.
void checkResult(const char* call, int32_t result);

}  // namespace sensorctl

#endif  // SENSORCTL_ERRORS_H
