// The consumer side's one error type: a failure that carries the library's result code, and a name that
// matches no sensor or application, with the names that would have.
#ifndef SENSOR_CONSUMER_ERRORS_H
#define SENSOR_CONSUMER_ERRORS_H

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace sensor_consumer {

// A library call (or a platform call on a frame's buffer) that failed. what() is
// "<call> failed: RESULT_NAME (code)", or "<call> failed for <context>: ..." with a context.
class Error : public std::runtime_error {
public:
    Error(const std::string& call, int32_t result, const std::string& context = {});
    // A failure the library's codes do not name exactly (an NvSciBuf call, a refused start): the nearest
    // code, and the message as it is.
    static Error withMessage(int32_t result, const std::string& call, const std::string& message);

    int32_t result() const { return m_result; }
    const std::string& call() const { return m_call; }

private:
    Error(int32_t result, const std::string& call, const std::string& message, bool);
    int32_t m_result;
    std::string m_call;
};

// Throws Error unless result is RESULT_OK.
void check(const char* call, int32_t result);

// A sensor or application name (or number) that matches none; known() lists what would.
class NameError : public std::invalid_argument {
public:
    NameError(const std::string& message, std::vector<std::string> known)
        : std::invalid_argument(message), m_known(std::move(known)) {}
    const std::vector<std::string>& known() const { return m_known; }

private:
    std::vector<std::string> m_known;
};

}  // namespace sensor_consumer

#endif  // SENSOR_CONSUMER_ERRORS_H
