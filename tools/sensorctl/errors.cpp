// Messages of library failures: the call, then the result code by name and number.
#include "errors.h"

#include <fmt/format.h>

#include "sensor_ipc_types.h"

namespace sensorctl {

LibraryError::LibraryError(const std::string& call, int32_t result)
    : ToolError(kExitLibrary, fmt::format("{} failed: {} ({})", call,
                                          vexa::cameraipcclient::resultCodeName(result), result)),
      m_result(result) {}

LibraryError::LibraryError(const std::string& call, int32_t result, const std::string& context)
    : ToolError(kExitLibrary, fmt::format("{} failed for {}: {} ({})", call, context,
                                          vexa::cameraipcclient::resultCodeName(result), result)),
      m_result(result) {}

void checkResult(const char* call, int32_t result) {
    if (result != 0) throw LibraryError(call, result);
}

}  // namespace sensorctl
