// The library's logger: one process-wide logging-library logger held by Clogger, the monotonic clock,
// and SIPC_LOG, the one way the library writes a record (filter first; nothing built or formatted
// when the filter refuses).
#ifndef SENSOR_IPC_CLOGGER_H
#define SENSOR_IPC_CLOGGER_H

#include <cstdint>
#include <memory>
#include <string>

#include "vexa_log.h"

namespace vexa {
namespace sensor_access {

class Clogger {
public:
    static Clogger& GetInstance();

    // Replaces the held logger; an empty one changes nothing and gives false.
    bool initIrdLogger(std::shared_ptr<vexalog::Logger> logger);
    std::shared_ptr<vexalog::Logger> getIrdlogger();
    ~Clogger();

    Clogger(const Clogger&) = delete;
    Clogger& operator=(const Clogger&) = delete;

private:
    Clogger() = default;
    std::shared_ptr<vexalog::Logger> m_logger;
};

// Steady clock in whole microseconds.
int64_t getSteadyTimeUs();

constexpr vexalog::LogLevel::Level kLogError = vexalog::LogLevel::kError;
constexpr vexalog::LogLevel::Level kLogWarn = vexalog::LogLevel::kWarn;
constexpr vexalog::LogLevel::Level kLogInfo = vexalog::LogLevel::kInfo;
constexpr vexalog::LogLevel::Level kLogDebug = vexalog::LogLevel::kDebug;

namespace detail {

constexpr const char* baseName(const char* path) {
    const char* base = path;
    for (const char* p = path; *p != '\0'; ++p) {
        if (*p == '/') base = p + 1;
    }
    return base;
}

template <typename... Parts>
void appendParts(vexalog::LogStream& stream, const Parts&... parts) {
    ((void)(stream << parts), ...);
}

// "0x" and the value in lower-case hexadecimal without leading zeros.
std::string hex(uint32_t value);

}  // namespace detail
}  // namespace sensor_access
}  // namespace vexa

// Writes one record at `level` made of the message parts, with this file's base name, the calling
// function and the line. The parts are evaluated only when the logger admits the level.
#define SIPC_LOG(level, ...)                                                                               \
    do {                                                                                                   \
        const ::vexa::vexalog::LogLevel::Level sipcLevel_ = (level);                                       \
        if (::vexa::vexalog::fiterLog(::vexa::sensor_access::Clogger::GetInstance().getIrdlogger(),        \
                                      sipcLevel_)) {                                                       \
            static constexpr const char* sipcFile_ = ::vexa::sensor_access::detail::baseName(__FILE__);    \
            ::vexa::vexalog::LogEventWrap sipcWrap_(std::make_shared<::vexa::vexalog::LogEvent>(           \
                ::vexa::sensor_access::Clogger::GetInstance().getIrdlogger(), sipcLevel_, sipcFile_, __func__, \
                __LINE__));                                                                                \
            ::vexa::sensor_access::detail::appendParts(sipcWrap_.getSS(), __VA_ARGS__);                    \
        }                                                                                                  \
    } while (0)

#endif  // SENSOR_IPC_CLOGGER_H
