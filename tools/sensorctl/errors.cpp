// Messages of library failures: the call, then the result code by name and number.
#include "errors.h"

#include "sensor_consumer/errors.h"

namespace sensorctl {

LibraryError::LibraryError(const std::string& call, int32_t result)
    : LibraryError(call, result, std::string()) {}

LibraryError::LibraryError(const std::string& call, int32_t result, const std::string& context)
    : ToolError(kExitLibrary, sensor_consumer::Error(call, result, context).what()), m_result(result) {}

void checkResult(const char* call, int32_t result) {
    if (result != 0) throw LibraryError(call, result);
}

}  // namespace sensorctl
