// Failures of a sensorctl command and the exit status each one ends the process with.
#ifndef SENSORCTL_ERRORS_H
#define SENSORCTL_ERRORS_H

#include <cstdint>
#include <stdexcept>
#include <string>

namespace sensorctl {

// Exit statuses (documented in `sensorctl --help` and docs/sensorctl.md).
enum ExitCode : int {
    kExitOk = 0,
    kExitLibrary = 1,       // a library call answered a failure code
    kExitUsage = 2,         // bad command line or arguments
    kExitIo = 3,            // a file could not be read or written, or is shorter than it must be
    kExitTimeout = 4,       // the connection or the frames asked for did not come in time
    kExitInterrupted = 130  // Ctrl-C while waiting for a connection or for frames (not during stream)
};

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

// Throws LibraryError unless result is 0.
void checkResult(const char* call, int32_t result);

}  // namespace sensorctl

#endif  // SENSORCTL_ERRORS_H
