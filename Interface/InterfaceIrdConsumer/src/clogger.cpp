// The library's logger singleton and clock.
#include "clogger.h"

#include <chrono>

namespace vexa {
namespace sensor_access {

Clogger& Clogger::GetInstance() {
    static Clogger instance;
    return instance;
}

bool Clogger::initIrdLogger(std::shared_ptr<vexalog::Logger> logger) {
    if (!logger) return false;
    m_logger = std::move(logger);
    return true;
}

std::shared_ptr<vexalog::Logger> Clogger::getIrdlogger() { return m_logger; }

Clogger::~Clogger() { m_logger.reset(); }

int64_t getSteadyTimeUs() {
    auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(
        std::chrono::steady_clock::now().time_since_epoch());
    return static_cast<int64_t>(ns.count() / 1000);
}

namespace detail {

std::string hex(uint32_t value) {
    static const char kDigits[] = "0123456789abcdef";
    std::string digits;
    do {
        digits.insert(digits.begin(), kDigits[value & 0xF]);
        value >>= 4;
    } while (value != 0);
    return "0x" + digits;
}

}  // namespace detail
}  // namespace sensor_access
}  // namespace vexa
