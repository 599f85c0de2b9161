// The recorder's queue and writer thread.
#include "recorder.h"

namespace sensorctl {

namespace {
constexpr size_t kFreeBuffers = 16;  // buffers kept for reuse, so that big frames do not map fresh memory
}

Recorder::Recorder(uint64_t queueBytes) : m_limit(queueBytes) {
    m_writer.setRecycler([this](std::vector<uint8_t>&& buffer) { recycle(std::move(buffer)); });
}

void Recorder::recycle(std::vector<uint8_t>&& buffer) {
    std::lock_guard<std::mutex> lock(m_mutex);
    keepLocked(std::move(buffer));
}

void Recorder::keepLocked(std::vector<uint8_t>&& buffer) {
    if (!buffer.empty() && m_free.size() < kFreeBuffers) m_free.push_back(std::move(buffer));
}

Recorder::~Recorder() {
    finish();
}

void Recorder::start() {
    m_thread = std::thread([this] { run(); });
}

std::vector<uint8_t> Recorder::takeBuffer() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_free.empty()) return {};
    std::vector<uint8_t> b = std::move(m_free.back());
    m_free.pop_back();
    return b;
}

uint64_t Recorder::sizeOf(const std::vector<sensor_recording::OwnedMessage>& messages) {
    uint64_t n = 0;
    for (const auto& m : messages) n += m.record.size();
    return n;
}

bool Recorder::offer(std::vector<sensor_recording::OwnedMessage>& messages) {
    const uint64_t size = sizeOf(messages);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_closing || m_failed.load() || m_queued + size > m_limit) {
            for (auto& m : messages) keepLocked(std::move(m.record));
            return false;
        }
        m_queued += size;
        m_queue.push_back(std::move(messages));
    }
    m_cv.notify_one();
    return true;
}

void Recorder::run() {
    while (true) {
        std::vector<sensor_recording::OwnedMessage> messages;
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_cv.wait(lock, [this] { return m_closing || !m_queue.empty(); });
            if (m_queue.empty()) return;
            messages = std::move(m_queue.front());
            m_queue.pop_front();
        }
        const uint64_t size = sizeOf(messages);
        bool ok = !m_failed.load();
        for (auto& m : messages) {
            if (!ok) break;
            ok = m_writer.write(std::move(m));
        }
        std::lock_guard<std::mutex> lock(m_mutex);
        m_queued -= size;
        for (auto& m : messages) keepLocked(std::move(m.record));  // those not written after a failure
        if (!ok && !m_failed.load()) {
            m_error = m_writer.error();
            m_failed.store(true);
        }
        if (m_failed.load()) {
            m_queued = 0;
            m_queue.clear();  // nothing more can be written
        }
    }
}

bool Recorder::finish() {
    if (m_finished) return m_error.empty();
    m_finished = true;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_closing = true;
    }
    m_cv.notify_all();
    if (m_thread.joinable()) m_thread.join();
    const bool closed = m_writer.close();
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!closed && m_error.empty()) m_error = m_writer.error();
    return m_error.empty();
}

std::string Recorder::error() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_error.empty()) return m_error;
    }
    return m_writer.error();
}

}  // namespace sensorctl
