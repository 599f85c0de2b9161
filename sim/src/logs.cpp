// Log capture behind the logging substitute: the back end file, the records written, the counters and
// the level that applies to records offered without a logger.
#include "sensor_sim/logs.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <mutex>

#include "sensor_sim/core.h"
#include "sensor_sim/internal/logs_internal.h"

namespace sensor_sim {
namespace logs {
namespace {

constexpr size_t kCaptureCapacity = 100000;
constexpr int kDefaultEmptyLoggerLevel = 3;

// Accepts a level number (0 to 6) or a level name; anything else keeps the default, with a note.
int parseLevel(const char* text) {
    static const char* const kNames[] = {"OFF", "FATAL", "ERROR", "WARN", "INFO", "DEBUG", "VERBOSE"};
    std::string upper;
    for (const char* p = text; *p != '\0'; ++p)
        upper += static_cast<char>(std::toupper(static_cast<unsigned char>(*p)));
    for (int i = 0; i < 7; ++i) {
        if (upper == kNames[i] || upper == std::to_string(i)) return i;
    }
    std::fprintf(stderr, "vexalog: VEXALOG_LEVEL=\"%s\" is not a level (0..6 or OFF..VERBOSE); using %d\n",
                 text, kDefaultEmptyLoggerLevel);
    return kDefaultEmptyLoggerLevel;
}

int startEmptyLoggerLevel() {
    static const int level = [] {
        const char* env = std::getenv("VEXALOG_LEVEL");
        return env != nullptr && *env != '\0' ? parseLevel(env) : kDefaultEmptyLoggerLevel;
    }();
    return level;
}

struct BackEnd {
    bool setUp = false;
    int fd = -1;           // the log file, or -1 when records go to standard error
    bool console = false;  // also copy records to standard error
    std::string path;      // as logFilePath() reports it
};

struct LogState {
    std::mutex mutex;  // guards back end and capture; also keeps lines whole in the output
    BackEnd backEnd;
    std::deque<Record> records;
    std::atomic<uint64_t> filterCalls{0};
    std::atomic<uint64_t> events{0};
    std::atomic<uint64_t> insertions{0};
    std::atomic<uint64_t> written{0};
    std::atomic<int> emptyLoggerLevel{startEmptyLoggerLevel()};
};

// Never destroyed: records may still be written while the process exits.
LogState& state() {
    static LogState* s = new LogState;
    return *s;
}

void resetCounters(LogState& s) {
    s.filterCalls = 0;
    s.events = 0;
    s.insertions = 0;
    s.written = 0;
}

void closeBackEnd(BackEnd& b) {
    if (b.fd >= 0) ::close(b.fd);
    b = BackEnd();
}

[[maybe_unused]] const bool kResetRegistered = [] {
    core::onReset([] {
        LogState& s = state();
        std::lock_guard<std::mutex> lock(s.mutex);
        closeBackEnd(s.backEnd);
        s.records.clear();
        resetCounters(s);
        s.emptyLoggerLevel = startEmptyLoggerLevel();
    });
    return true;
}();

// Writes the whole text or gives up on the first error (a log line must never stop the caller).
void writeAll(int fd, const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        done += static_cast<size_t>(n);
    }
}

// A file name made of the application id; refused when it would leave the directory or be hidden.
bool validFileName(const std::string& appId) {
    return !appId.empty() && appId[0] != '.' && appId.find('/') == std::string::npos &&
           appId.find('\0') == std::string::npos;
}

}  // namespace

std::vector<Record> records() {
    LogState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    return {s.records.begin(), s.records.end()};
}

void clear() {
    LogState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.records.clear();
    resetCounters(s);
}

Counters counters() {
    LogState& s = state();
    return Counters{s.filterCalls.load(), s.events.load(), s.insertions.load(), s.written.load()};
}

void setEmptyLoggerLevel(int level) {
    state().emptyLoggerLevel = level;
}

std::string logFilePath() {
    LogState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.backEnd.path;
}

namespace internal {

void countFilter() {
    state().filterCalls.fetch_add(1, std::memory_order_relaxed);
}
void countEvent() {
    state().events.fetch_add(1, std::memory_order_relaxed);
}
void countInsertion() {
    state().insertions.fetch_add(1, std::memory_order_relaxed);
}

int emptyLoggerLevel() {
    return state().emptyLoggerLevel.load(std::memory_order_relaxed);
}

void setUpBackEnd(const std::string& dir, const std::string& appId, int mode) {
    LogState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    BackEnd& b = s.backEnd;
    if (b.setUp) return;
    b.setUp = true;
    if (mode == static_cast<int>(Mode::kConsole)) {
        b.path = "-";
        return;
    }
    b.console = mode == static_cast<int>(Mode::kConsoleAndFile);

    std::string problem;
    std::error_code ec;
    const std::filesystem::path file = std::filesystem::path(dir) / (appId + ".log");
    if (dir.empty()) {
        problem = "no log directory given";
    } else if (!validFileName(appId)) {
        problem = "application id \"" + appId + "\" is not usable as a file name";
    } else if (std::filesystem::create_directories(dir, ec), ec) {
        problem = "cannot create " + dir + ": " + ec.message();
    } else {
        b.fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        if (b.fd < 0) problem = "cannot open " + file.string() + ": " + std::strerror(errno);
    }
    if (b.fd < 0) {
        b.console = false;
        b.path = "-";
        std::fprintf(stderr, "vexalog: %s; log records go to standard error\n", problem.c_str());
        return;
    }
    b.path = file.string();
}

void write(Record record, bool toBackEnd) {
    LogState& s = state();
    std::string line = record.formatted + "\n";
    std::lock_guard<std::mutex> lock(s.mutex);
    const BackEnd& b = s.backEnd;
    if (toBackEnd && b.fd >= 0) {
        writeAll(b.fd, line);
        if (b.console) writeAll(STDERR_FILENO, line);
    } else {
        writeAll(STDERR_FILENO, line);
    }
    if (s.records.size() >= kCaptureCapacity) s.records.pop_front();
    s.records.push_back(std::move(record));
    s.written.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace internal
}  // namespace logs
}  // namespace sensor_sim
