// sensor-simd's consumers: who holds which channel, what each consumer received, held and had refused,
// and the service's own refusals; `sensorctl service` shows a snapshot of it.
#ifndef SENSOR_SIMD_REGISTRY_H
#define SENSOR_SIMD_REGISTRY_H

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "sensor_sim/internal/vehicle.h"
#include "sensor_sim/service.h"

namespace sensor_simd {

struct ConsumerRecord {
    std::unique_ptr<sensor_sim::vehicle::LocalConsumer> local;
    uint64_t pid = 0;
    std::string app;
    std::string channel;  // empty until InitConsumer succeeded
    std::set<uint32_t> streams;
    std::atomic<uint64_t> received{0};  // producers count frames answered through control pages
    std::atomic<uint64_t> refused{0};
};

// Used by the event loop's thread only; producers reach a record through its connection, and only its
// counters.
class Registry {
public:
    // A new consumer of the stream model, owned by process `pid`.
    ConsumerRecord& create(uint64_t pid);
    ConsumerRecord* find(uint64_t id);
    void destroy(uint64_t id);
    // The pid of another consumer that holds `channel`, or 0 when `id` may have it. A channel is one
    // endpoint: one consumer at a time, whatever the application's name.
    uint64_t holderOf(const std::string& channel, uint64_t id) const;

    sensor_sim::service::Refusals& refusals() { return m_refusals; }
    // Consumers as `sensorctl service` shows them (pools and counts are added by the server).
    std::vector<sensor_sim::service::ConsumerState> consumers() const;

private:
    std::map<uint64_t, std::unique_ptr<ConsumerRecord>> m_consumers;  // by the stream model's id
    sensor_sim::service::Refusals m_refusals;
};

}  // namespace sensor_simd

#endif  // SENSOR_SIMD_REGISTRY_H
