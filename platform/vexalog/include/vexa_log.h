// The maker's logging library (libvexalog.so.1) as the sensor IPC client uses it: back-end set-up,
// loggers, the level filter and the record builder. On the vehicle the vendor's header replaces this.
#ifndef VEXA_LOG_H
#define VEXA_LOG_H

#include <cstdint>
#include <memory>
#include <string>

namespace vexa {
namespace vexalog {

struct LogLevel {
    // Lower is more severe; a logger admits every level up to and including its own.
    enum Level : uint16_t {
        kOff = 0,
        kFatal = 1,
        kError = 2,
        kWarn = 3,
        kInfo = 4,
        kDebug = 5,
        kVerbose = 6,
    };
};

struct LogMode {
    enum Mode : uint16_t {
        kConsole = 1,
        kFile = 2,
        kConsoleAndFile = 3,
    };
};

// File settings of the back end: how many files are kept and how large one grows.
struct AppFileInfo {
    uint32_t fileCount;
    uint32_t fileSizeMb;
    uint16_t flags;
};

// Per-context settings: the record format string.
struct CtxFileInfo {
    uint32_t flags;
    std::string format;
};

class Logger;

// Sets up the logging back end of the process; 0 on success.
int initLogging(const std::string& appId, const std::string& ctxId, const LogMode::Mode& mode,
                const LogLevel::Level& level, const std::string& logDir, const AppFileInfo& fileInfo);

// A new logger for one context; empty on failure.
std::shared_ptr<Logger> createLogger(const std::string& appId, const std::string& ctxId,
                                     const LogLevel::Level& level, const CtxFileInfo& ctxInfo);

// True when a record of this level is to be written through this logger (an empty logger is allowed).
bool fiterLog(std::shared_ptr<Logger> logger, LogLevel::Level level);

class LogStream {
public:
    LogStream& operator<<(const char* text);
    LogStream& operator<<(const std::string& text);
    LogStream& operator<<(int value);
    LogStream& operator<<(unsigned int value);
    LogStream& operator<<(unsigned short value);
    LogStream& operator<<(unsigned long value);

    const std::string& str() const { return m_text; }

private:
    std::string m_text;
};

// One record in preparation.
class LogEvent {
public:
    LogEvent(const std::shared_ptr<Logger>& logger, const LogLevel::Level& level, const char* file,
             const char* function, int line);
    ~LogEvent();
    LogEvent(const LogEvent&) = delete;
    LogEvent& operator=(const LogEvent&) = delete;

    LogStream& getSS() { return m_stream; }
    // Writes the record (once).
    void flush();

private:
    std::shared_ptr<Logger> m_logger;
    LogLevel::Level m_level;
    std::string m_file;
    std::string m_function;
    int m_line;
    int64_t m_createdNs;
    bool m_written = false;
    LogStream m_stream;
};

// Gives the record's text stream; the record is written when the wrapper is destroyed.
class LogEventWrap {
public:
    explicit LogEventWrap(std::shared_ptr<LogEvent> event);
    ~LogEventWrap();
    LogEventWrap(const LogEventWrap&) = delete;
    LogEventWrap& operator=(const LogEventWrap&) = delete;

    LogStream& getSS();

private:
    std::shared_ptr<LogEvent> m_event;
};

}  // namespace vexalog
}  // namespace vexa

#endif  // VEXA_LOG_H
