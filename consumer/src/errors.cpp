// Messages of library failures: the call, then the result code by name and number.
#include "sensor_consumer/errors.h"

#include "sensor_ipc_types.h"

namespace sensor_consumer {
namespace {

std::string describe(const std::string& call, int32_t result, const std::string& context) {
    return call + " failed" + (context.empty() ? "" : " for " + context) + ": " +
           vexa::cameraipcclient::resultCodeName(result) + " (" + std::to_string(result) + ")";
}

}  // namespace

Error::Error(const std::string& call, int32_t result, const std::string& context)
    : std::runtime_error(describe(call, result, context)), m_result(result), m_call(call) {}

Error::Error(int32_t result, const std::string& call, const std::string& message, bool)
    : std::runtime_error(message), m_result(result), m_call(call) {}

Error Error::withMessage(int32_t result, const std::string& call, const std::string& message) {
    return Error(result, call, message, true);
}

void check(const char* call, int32_t result) {
    if (result != vexa::cameraipcclient::RESULT_OK) throw Error(call, result);
}

}  // namespace sensor_consumer
