// Journal, injected statuses, delays and reset hooks of the simulator.
#include <atomic>
#include <deque>
#include <map>
#include <mutex>
#include <thread>

#include "sensor_sim/control.h"
#include "sensor_sim/core.h"

namespace sensor_sim {
namespace {

constexpr size_t kJournalCapacity = 100000;
constexpr int kJournalFollowsMode = -1;  // on in scripted mode, off in live mode

struct Injection {
    int64_t status;
    int remaining;  // < 0: unlimited
    int skip;       // calls let through first
};

struct CoreState {
    std::mutex mutex;
    std::deque<Call> journal;
    std::map<std::string, std::deque<Injection>, std::less<>> injections;
    std::map<std::string, std::chrono::microseconds, std::less<>> delays;
    std::vector<std::function<void()>> resetHooks;
    std::atomic<bool> live{true};
    std::atomic<int> journalSwitch{kJournalFollowsMode};  // or setJournal's choice
    std::atomic<bool> armed{false};          // some injection or delay is set: enter() must look
    std::function<void()> firstUse;
    std::once_flag firstUseOnce;
};

// Never destroyed: substitutes may still be called while the process exits.
CoreState& state() {
    static CoreState* s = new CoreState;
    return *s;
}

}  // namespace

namespace core {

bool journaling() {
    const CoreState& s = state();
    const int chosen = s.journalSwitch.load(std::memory_order_relaxed);
    return chosen == kJournalFollowsMode ? !s.live.load(std::memory_order_relaxed) : chosen != 0;
}

void Args::sep() {
    if (m_started) m_text += ',';
    m_started = true;
}

Args& Args::add(int64_t value) {
    if (!m_on) return *this;
    sep();
    m_text += std::to_string(value);
    return *this;
}

Args& Args::add(uint64_t value) {
    if (!m_on) return *this;
    sep();
    m_text += std::to_string(value);
    return *this;
}

Args& Args::add(std::string_view text) {
    if (!m_on) return *this;
    sep();
    m_text.append(text.data(), text.size());
    return *this;
}

Args& Args::addPtr(const void* ptr) {
    if (!m_on) return *this;
    sep();
    m_text += ptr == nullptr ? "null" : "ptr";
    return *this;
}

void ensureFirstUse() {
    CoreState& s = state();
    std::call_once(s.firstUseOnce, [&s] {
        if (s.firstUse) s.firstUse();
    });
}

void record(std::string_view fn, const Args& args) {
    CoreState& s = state();
    ensureFirstUse();
    if (!args.on() || !journaling()) return;
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.journal.size() >= kJournalCapacity) s.journal.pop_front();
    s.journal.push_back(Call{std::string(fn), args.str()});
}

std::optional<int64_t> enter(std::string_view fn) {
    CoreState& s = state();
    if (!s.armed.load(std::memory_order_acquire)) return std::nullopt;
    std::chrono::microseconds delay{0};
    std::optional<int64_t> status;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        auto d = s.delays.find(fn);
        if (d != s.delays.end()) delay = d->second;
        auto it = s.injections.find(fn);
        if (it != s.injections.end() && !it->second.empty()) {
            Injection& front = it->second.front();
            if (front.skip > 0) {
                --front.skip;
            } else {
                status = front.status;
                if (front.remaining > 0 && --front.remaining == 0) it->second.pop_front();
            }
        }
    }
    if (delay.count() > 0) std::this_thread::sleep_for(delay);
    return status;
}

void onReset(std::function<void()> hook) {
    CoreState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.resetHooks.push_back(std::move(hook));
}

bool live() { return state().live.load(std::memory_order_acquire); }

void setLive(bool live) { state().live.store(live, std::memory_order_release); }

void onFirstUse(std::function<void()> hook) { state().firstUse = std::move(hook); }

}  // namespace core

void reset() {
    CoreState& s = state();
    s.live.store(false, std::memory_order_release);
    std::vector<std::function<void()>> hooks;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        s.journal.clear();
        s.injections.clear();
        s.delays.clear();
        s.armed.store(false, std::memory_order_release);
        s.journalSwitch.store(kJournalFollowsMode, std::memory_order_relaxed);
        hooks = s.resetHooks;
    }
    for (auto& hook : hooks) hook();
}

void injectStatus(const std::string& fn, int64_t status, int count, int skip) {
    if (count == 0) return;
    CoreState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.injections[fn].push_back(Injection{status, count, skip < 0 ? 0 : skip});
    s.armed.store(true, std::memory_order_release);
}

void clearInjections() {
    CoreState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.injections.clear();
    s.armed.store(!s.delays.empty(), std::memory_order_release);
}

void setDelay(const std::string& fn, std::chrono::microseconds delay) {
    CoreState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (delay.count() <= 0) {
        s.delays.erase(fn);
    } else {
        s.delays[fn] = delay;
    }
    s.armed.store(!s.delays.empty() || !s.injections.empty(), std::memory_order_release);
}

void setJournal(bool on) { state().journalSwitch.store(on ? 1 : 0, std::memory_order_relaxed); }

std::vector<Call> journal() {
    CoreState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    return {s.journal.begin(), s.journal.end()};
}

std::vector<std::string> journalOf(const std::string& fn) {
    CoreState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    std::vector<std::string> out;
    for (const Call& c : s.journal) {
        if (c.fn == fn) out.push_back(c.args);
    }
    return out;
}

size_t callCount(const std::string& fn) { return journalOf(fn).size(); }

void clearJournal() {
    CoreState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.journal.clear();
}

}  // namespace sensor_sim
