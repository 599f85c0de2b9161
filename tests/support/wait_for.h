// The one bounded wait of the tests: poll a condition until it holds or a time limit passes.
#ifndef SIPC_TESTS_WAIT_FOR_H
#define SIPC_TESTS_WAIT_FOR_H

#include <chrono>
#include <functional>
#include <thread>

namespace sipc_test {

// Polls `done` every 5 ms until it holds or `limit` passes; the result of the last poll.
inline bool waitFor(const std::function<bool()>& done,
                    std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

}  // namespace sipc_test

#endif  // SIPC_TESTS_WAIT_FOR_H
