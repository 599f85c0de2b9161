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

void Args::sep() {
    if (m_started) m_text += ',';
    m_started = true;
}

Args& Args::add(int64_t value) {
    sep();
    m_text += std::to_string(value);
    return *this;
}

Args& Args::add(uint64_t value) {
    sep();
    m_text += std::to_string(value);
    return *this;
}

Args& Args::add(std::string_view text) {
    sep();
    m_text.append(text.data(), text.size());
    return *this;
}

Args& Args::addPtr(const void* ptr) {
    sep();
    m_text += ptr == nullptr ? "null" : "ptr";
    return *this;
}

void record(std::string_view fn, const Args& args) {
    CoreState& s = state();
    std::call_once(s.firstUseOnce, [&s] {
        if (s.firstUse) s.firstUse();
    });
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.journal.size() >= kJournalCapacity) s.journal.pop_front();
    s.journal.push_back(Call{std::string(fn), args.str()});
}

std::optional<int64_t> enter(std::string_view fn) {
    CoreState& s = state();
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
        hooks = s.resetHooks;
    }
    for (auto& hook : hooks) hook();
}

void injectStatus(const std::string& fn, int64_t status, int count, int skip) {
    if (count == 0) return;
    CoreState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.injections[fn].push_back(Injection{status, count, skip < 0 ? 0 : skip});
}

void clearInjections() {
    CoreState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.injections.clear();
}

void setDelay(const std::string& fn, std::chrono::microseconds delay) {
    CoreState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (delay.count() <= 0) {
        s.delays.erase(fn);
    } else {
        s.delays[fn] = delay;
    }
}

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
