// Simulator core used by the host substitutes: journal, injected statuses and delays, reset hooks and
// the mode switch. Not for tests (they use control.h).
#ifndef SENSOR_SIM_CORE_H
#define SENSOR_SIM_CORE_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sensor_sim {
namespace core {

// True while calls are journaled: in scripted mode, or after control.h's setJournal(true). A live
// application's calls skip the journal entirely (no argument text, no lock).
bool journaling();

// Builds the argument text of a journal entry, in the format control.h documents. When the journal is
// off at construction every add() is a no-op, so building the arguments of a call costs nothing.
class Args {
public:
    Args() : m_on(journaling()) {}
    bool on() const { return m_on; }
    Args& add(int64_t value);
    Args& add(uint64_t value);
    Args& add(int value) { return add(static_cast<int64_t>(value)); }
    Args& add(unsigned int value) { return add(static_cast<uint64_t>(value)); }
    Args& add(unsigned short value) { return add(static_cast<uint64_t>(value)); }
    Args& add(unsigned char value) { return add(static_cast<uint64_t>(value)); }
    Args& add(bool value) { return add(static_cast<uint64_t>(value)); }
    Args& add(std::string_view text);
    Args& add(const char* text) { return add(std::string_view(text)); }
    Args& add(const std::string& text) { return add(std::string_view(text)); }
    Args& addPtr(const void* ptr);
    template <typename T>
    Args& addList(const std::vector<T>& values) {
        if (!m_on) return *this;
        std::string list = "[";
        for (size_t i = 0; i < values.size(); ++i) {
            if (i != 0) list += ' ';
            list += std::to_string(values[i]);
        }
        list += ']';
        return add(std::string_view(list));
    }
    const std::string& str() const { return m_text; }

private:
    void sep();
    std::string m_text;
    bool m_started = false;
    bool m_on;
};

// Records one call in the journal (when it is on; `args` built while it was off are dropped).
void record(std::string_view fn, const Args& args);

// Consumes one injected status of fn, if any; sleeps for fn's delay first. Without any injection or
// delay set this reads one atomic flag and takes no lock.
std::optional<int64_t> enter(std::string_view fn);

// Registers a function that reset() calls (each model resets its own state).
void onReset(std::function<void()> hook);

// True until the first reset(): the process runs the live vehicle. The live vehicle's start and stop
// (rig.h) switch it on and off again in test processes.
bool live();
void setLive(bool live);

// Registers the function that runs once, at the first call recorded in the process, before the call
// is journaled (the live vehicle reads its rig and scenario files then). Registered during static
// initialisation; one hook only.
void onFirstUse(std::function<void()> hook);
// Runs that hook now if no call has run it yet (a tool that must know its vehicle before any call).
void ensureFirstUse();

}  // namespace core
}  // namespace sensor_sim

#endif  // SENSOR_SIM_CORE_H
