// sensor-simd's consumers and channels.
#include "registry.h"

namespace sensor_simd {

ConsumerRecord& Registry::create(uint64_t pid) {
    auto record = std::make_unique<ConsumerRecord>();
    record->local = std::make_unique<sensor_sim::vehicle::LocalConsumer>();
    record->pid = pid;
    ConsumerRecord& r = *record;
    m_consumers[r.local->id()] = std::move(record);
    return r;
}

ConsumerRecord* Registry::find(uint64_t id) {
    auto it = m_consumers.find(id);
    return it == m_consumers.end() ? nullptr : it->second.get();
}

void Registry::destroy(uint64_t id) {
    m_consumers.erase(id);  // the stream model returns the consumer's frames to their pools at once
}

uint64_t Registry::holderOf(const std::string& channel, uint64_t id) const {
    for (const auto& [other, r] : m_consumers) {
        if (other != id && r->channel == channel) return r->pid;
    }
    return 0;
}

std::vector<sensor_sim::service::ConsumerState> Registry::consumers() const {
    const auto held = sensor_sim::streams::held();
    std::vector<sensor_sim::service::ConsumerState> out;
    for (const auto& [id, r] : m_consumers) {
        if (r->channel.empty()) continue;
        sensor_sim::service::ConsumerState c;
        c.pid = r->pid;
        c.app = r->app;
        c.channel = r->channel;
        c.streams.assign(r->streams.begin(), r->streams.end());
        c.received = r->received.load();
        c.refused = r->refused.load();
        for (const auto& h : held) c.held += h.channel == r->channel ? 1 : 0;
        out.push_back(std::move(c));
    }
    return out;
}

}  // namespace sensor_simd
