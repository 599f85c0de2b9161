// Host substitute of the logging library: loggers with a level and a record format, the level filter,
// and records laid out by the format and written to the simulator's back end (a file per application,
// or standard error), where tests can also read them back.
#include "vexa_log.h"

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <vector>

#include "sensor_sim/core.h"
#include "sensor_sim/internal/logs_internal.h"

namespace vexa {
namespace vexalog {

namespace core = sensor_sim::core;
namespace logs = sensor_sim::logs;

// A logger is immutable once created, so records may be built through it from any thread.
class Logger {
public:
    Logger(std::string appId, std::string ctxId, LogLevel::Level level, std::string format)
        : m_appId(std::move(appId)), m_ctxId(std::move(ctxId)), m_level(level), m_format(std::move(format)) {}

    const std::string& appId() const { return m_appId; }
    const std::string& ctxId() const { return m_ctxId; }
    LogLevel::Level level() const { return m_level; }
    const std::string& format() const { return m_format; }

private:
    const std::string m_appId;
    const std::string m_ctxId;
    const LogLevel::Level m_level;
    const std::string m_format;
};

namespace {

// Records offered without a logger, and loggers created with an empty format, use this layout.
constexpr const char* kDefaultFormat = "%d{%Y/%m/%d %H:%M:%S.} %l %f:%L %F [%m]%n";

int64_t wallClockNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::string levelName(int level) {
    static const char* const kNames[] = {"FATAL", "ERROR", "WARN", "INFO", "DEBUG", "VERBOSE"};
    if (level >= 1 && level <= 6) return kNames[level - 1];
    return std::to_string(level);
}

// Local time of `ns` through strftime; a pattern ending in '.' gets the milliseconds after the dot.
void appendTime(std::string& out, const std::string& pattern, int64_t ns) {
    if (pattern.empty()) return;
    int64_t secs = ns / 1000000000;
    int64_t rem = ns % 1000000000;
    if (rem < 0) {
        rem += 1000000000;
        --secs;
    }
    const std::time_t t = static_cast<std::time_t>(secs);
    std::tm tm{};
    localtime_r(&t, &tm);
    // strftime gives 0 both for an empty result and for a too small buffer: grow a few times, then give up.
    std::vector<char> buf(pattern.size() * 4 + 64);
    for (int attempt = 0; attempt < 4; ++attempt) {
        const size_t n = std::strftime(buf.data(), buf.size(), pattern.c_str(), &tm);
        if (n > 0) {
            out.append(buf.data(), n);
            break;
        }
        buf.resize(buf.size() * 8);
    }
    if (pattern.back() == '.') {
        char ms[4];
        std::snprintf(ms, sizeof ms, "%03d", static_cast<int>(rem / 1000000));
        out += ms;
    }
}

struct RecordFields {
    const std::string& ctxId;
    int level;
    const std::string& file;
    const std::string& function;
    int line;
    const std::string& text;
    int64_t createdNs;
    int64_t writtenNs;
};

// What a one-letter token stands for; false for tokens that are not one.
bool expandToken(char token, const RecordFields& f, std::string& out) {
    // clang-format off
    switch (token) {
        case 'c': out += f.ctxId; return true;
        case 'f': out += f.file; return true;
        case 'F': out += f.function; return true;
        case 'L': out += std::to_string(f.line); return true;
        case 'l': out += levelName(f.level); return true;
        case 'm': out += f.text; return true;
        case 'n': out += '\n'; return true;
        case 't': out += std::to_string(static_cast<long>(::gettid())); return true;
        case '%': out += '%'; return true;
        default: return false;
    }
    // clang-format on
}

std::string formatRecord(const std::string& format, const RecordFields& f) {
    std::string out;
    const size_t n = format.size();
    for (size_t i = 0; i < n; ++i) {
        if (format[i] != '%' || i + 1 == n) {
            out += format[i];
            continue;
        }
        const char token = format[++i];
        if ((token == 'M' || token == 'd') && i + 1 < n && format[i + 1] == '{') {
            const size_t close = format.find('}', i + 2);
            if (close != std::string::npos) {
                appendTime(out, format.substr(i + 2, close - (i + 2)),
                           token == 'M' ? f.createdNs : f.writtenNs);
                i = close;
                continue;
            }
        }
        // Unknown tokens, and %M or %d without a {pattern}, are copied as they stand.
        if (!expandToken(token, f, out)) {
            out += '%';
            out += token;
        }
    }
    // Every record is written as one line end-terminated; the captured form carries no line end.
    if (!out.empty() && out.back() == '\n') out.pop_back();
    return out;
}

}  // namespace

int initLogging(const std::string& appId, const std::string& ctxId, const LogMode::Mode& mode,
                const LogLevel::Level& level, const std::string& logDir, const AppFileInfo& fileInfo) {
    core::record("initLogging", core::Args()
                                    .add(appId)
                                    .add(ctxId)
                                    .add(static_cast<int>(mode))
                                    .add(static_cast<int>(level))
                                    .add(logDir)
                                    .add(fileInfo.fileCount)
                                    .add(fileInfo.fileSizeMb)
                                    .add(fileInfo.flags));
    if (auto s = core::enter("initLogging")) return static_cast<int>(*s);
    const char* envDir = std::getenv("VEXALOG_DIR");
    const std::string dir = envDir != nullptr && *envDir != '\0' ? std::string(envDir) : logDir;
    logs::internal::setUpBackEnd(dir, appId, static_cast<int>(mode));
    return 0;
}

std::shared_ptr<Logger> createLogger(const std::string& appId, const std::string& ctxId,
                                     const LogLevel::Level& level, const CtxFileInfo& ctxInfo) {
    core::record("createLogger", core::Args()
                                     .add(appId)
                                     .add(ctxId)
                                     .add(static_cast<int>(level))
                                     .add(ctxInfo.flags)
                                     .add(ctxInfo.format));
    if (core::enter("createLogger")) return nullptr;
    return std::make_shared<Logger>(appId, ctxId, level,
                                    ctxInfo.format.empty() ? kDefaultFormat : ctxInfo.format);
}

bool fiterLog(std::shared_ptr<Logger> logger, LogLevel::Level level) {
    // Counted for tests only: a shared counter written on every frame would cost live applications.
    if (core::journaling()) logs::internal::countFilter();
    if (level == LogLevel::kOff) return false;
    const int limit = logger ? static_cast<int>(logger->level()) : logs::internal::emptyLoggerLevel();
    return static_cast<int>(level) <= limit;
}

LogStream& LogStream::operator<<(const char* text) {
    logs::internal::countInsertion();
    m_text += text != nullptr ? text : "(null)";
    return *this;
}

LogStream& LogStream::operator<<(const std::string& text) {
    logs::internal::countInsertion();
    m_text += text;
    return *this;
}

LogStream& LogStream::operator<<(int value) {
    logs::internal::countInsertion();
    m_text += std::to_string(value);
    return *this;
}

LogStream& LogStream::operator<<(unsigned int value) {
    logs::internal::countInsertion();
    m_text += std::to_string(value);
    return *this;
}

LogStream& LogStream::operator<<(unsigned short value) {
    logs::internal::countInsertion();
    m_text += std::to_string(value);
    return *this;
}

LogStream& LogStream::operator<<(unsigned long value) {
    logs::internal::countInsertion();
    m_text += std::to_string(value);
    return *this;
}

LogEvent::LogEvent(const std::shared_ptr<Logger>& logger, const LogLevel::Level& level, const char* file,
                   const char* function, int line)
    : m_logger(logger),
      m_level(level),
      m_file(file != nullptr ? file : ""),
      m_function(function != nullptr ? function : ""),
      m_line(line),
      m_createdNs(wallClockNs()) {
    logs::internal::countEvent();
}

// A record that was never flushed is dropped: only LogEventWrap decides that a record is complete.
LogEvent::~LogEvent() = default;

void LogEvent::flush() {
    if (m_written) return;
    m_written = true;
    const std::string empty;
    const std::string& format = m_logger ? m_logger->format() : std::string(kDefaultFormat);
    const RecordFields fields{m_logger ? m_logger->ctxId() : empty,
                              static_cast<int>(m_level),
                              m_file,
                              m_function,
                              m_line,
                              m_stream.str(),
                              m_createdNs,
                              wallClockNs()};
    logs::Record record;
    record.logger = m_logger.get();
    record.appId = m_logger ? m_logger->appId() : empty;
    record.ctxId = fields.ctxId;
    record.level = fields.level;
    record.file = m_file;
    record.function = m_function;
    record.line = m_line;
    record.text = m_stream.str();
    record.formatted = formatRecord(format, fields);
    logs::internal::write(std::move(record), m_logger != nullptr);
}

LogEventWrap::LogEventWrap(std::shared_ptr<LogEvent> event) : m_event(std::move(event)) {
    static std::atomic<bool> noted{false};
    if (!m_event && !noted.exchange(true)) {
        std::fprintf(stderr, "vexalog: LogEventWrap given no event; its text is dropped\n");
    }
}

LogEventWrap::~LogEventWrap() {
    if (m_event) m_event->flush();
}

LogStream& LogEventWrap::getSS() {
    if (m_event) return m_event->getSS();
    // Without an event the text has nowhere to go; a per-thread scratch stream takes it.
    thread_local LogStream scratch;
    scratch = LogStream();
    return scratch;
}

}  // namespace vexalog
}  // namespace vexa
