// sensor-simd's frame hand-off. A client that keeps up gets and releases frames through its control
// page without a message: the producer answers its get there, and releases are drained before each frame
// takes a pool buffer, so no thread of the service wakes per frame and consumer but the producer's. A get
// through the socket (no page, or frames already waiting) is answered by the event loop.
#include "frame_service.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "registry.h"
#include "sensor_sim/internal/streams_internal.h"

namespace sensor_simd {

namespace model = sensor_sim::streams::internal;
namespace msg = sensor_sim::msg;
namespace wire = sensor_sim::wire;
using sensor_sim::streams::FrameSpec;

namespace {

msg::FrameAnswer frameAnswer(int result, const FrameSpec& frame, uint64_t bufferId) {
    msg::FrameAnswer a;
    a.status = result;
    if (result != 0) return a;
    a.counter = frame.counter;
    a.objIndex = frame.objIndex;
    a.sensorId = frame.sensorId;
    a.trailing = frame.trailing;
    a.bufferId = bufferId;
    std::copy(std::begin(frame.words), std::end(frame.words), a.words.begin());
    return a;
}

}  // namespace

void FrameService::install() {
    model::setDeliveryListener([this](uint32_t stream, uint32_t output) { delivered(stream, output); });
    model::setReleaseCollector([this] { collectReleases(); });
}

void FrameService::uninstall() {
    model::setDeliveryListener({});
    model::setReleaseCollector({});
}

// --- Producer threads ------------------------------------------------------------------------------

void FrameService::delivered(uint32_t stream, uint32_t output) {
    if (m_waitingCount.load() != 0) {
        std::lock_guard<std::mutex> lock(m_deliveredMutex);
        if (m_delivered.insert({stream, output}).second && m_delivered.size() == 1) {
            const uint64_t one = 1;
            const ssize_t written = ::write(m_wakeFd, &one, sizeof one);
            (void)written;  // a counter already set wakes the loop all the same
        }
    }
    forEachPage([&](Connection& c) { offerPage(c, stream, output); });
}

void FrameService::collectReleases() {
    forEachPage([this](Connection& c) { drain(c); });
}

void FrameService::drain(Connection& c) {
    if (!c.page || c.pageBroken) return;
    std::array<wire::ReleaseEntry, wire::kReleaseSlots> entries;
    const int count = wire::takeReleases(c.page->page(), &c.releaseTail, &entries);
    if (count < 0) {
        // A ring no honest client writes: that client's connection ends, nobody else's.
        c.pageBroken = true;
        ::shutdown(c.fd(), SHUT_RDWR);
        return;
    }
    for (int i = 0; i < count; ++i) {
        const auto& e = entries[static_cast<size_t>(i)];
        if (c.record->local->releaseFrame(e.streamId, e.output, e.objIndex, e.counter) != 0) ++c.record->refused;
    }
}

void FrameService::refreshAvailable(Connection& c, uint32_t stream, uint32_t output) {
    if (!c.page || stream >= wire::kPageStreams || output > 1) return;
    const bool waiting = c.record->local->waitingFrames(stream, output) != 0;
    auto& flag = c.page->page().available[stream * 2 + output];
    if (flag.load(std::memory_order_relaxed) != (waiting ? 1 : 0)) flag.store(waiting ? 1 : 0);
}

// Publishes whether frames of this output wait for the connection's consumer and, when the client waits
// for one, takes it for the client.
void FrameService::offerPage(Connection& c, uint32_t stream, uint32_t output) {
    if (!c.page || c.pageBroken || stream >= wire::kPageStreams) return;
    refreshAvailable(c, stream, output);
    wire::ControlPage& page = c.page->page();
    if (page.available[stream * 2 + output].load() == 0) return;
    uint32_t expected = wire::pageWaiting(stream, output);
    if (!page.get.compare_exchange_strong(expected, wire::kPageClaimed)) return;
    FrameSpec frame;
    std::chrono::milliseconds wait{0};
    const int result = c.record->local->takeFrame(stream, output, &frame, &wait);
    if (result != 0) {
        // Another connection of the consumer took the frame first: the client waits on.
        page.get.store(wire::pageWaiting(stream, output));
        refreshAvailable(c, stream, output);
        return;
    }
    answerPage(c, stream, output, result, frame);
}

// Writes the answer of a claimed get and wakes the client.
void FrameService::answerPage(Connection& c, uint32_t stream, uint32_t output, int result, const FrameSpec& frame) {
    if (result == 0 && (!frame.buffer || frame.buffer->sharedFd() < 0)) {
        // A frame without shared memory cannot reach another process: give it back.
        c.record->local->releaseFrame(stream, output, frame.objIndex, frame.counter);
        result = 1;
    }
    uint64_t bufferId = 0;
    if (result == 0) {
        bufferId = frame.buffer->serial();
        c.offered[bufferId] = frame.buffer;
        ++c.record->received;
    }
    // Before the answer: a client that wakes at once must not find the taken frame still announced.
    refreshAvailable(c, stream, output);
    wire::ControlPage& page = c.page->page();
    wire::putAnswer(page, frameAnswer(result, frame, bufferId));
    page.get.store(wire::kPageAnswered, std::memory_order_release);
    wire::wakePage(page);
}

// --- Loop thread -----------------------------------------------------------------------------------

bool FrameService::openPage(Connection& c) {
    if (c.page) return false;  // a second time
    std::string error;
    auto page = wire::PageMapping::create(&error);
    if (!page) {
        static bool said = false;
        if (!said) std::fprintf(stderr, "sensor-simd: no control page (%s): frames go by messages\n", error.c_str());
        said = true;
        return c.send(msg::PageAnswer{1, 0});
    }
    const int fd = page->fd();
    {
        std::unique_lock<std::shared_mutex> links(m_linksMutex);
        std::lock_guard<std::mutex> lock(c.pageMutex);
        c.page = std::move(page);
        m_linked.push_back(&c);
        // Frames that arrived before the page existed; later deliveries update it themselves.
        for (const auto& [id, outputs] : model::streamTable()) {
            for (const auto& o : outputs) refreshAvailable(c, id, o.output);
        }
    }
    return c.send(msg::PageAnswer{0, static_cast<uint32_t>(wire::kPageBytes)}, fd);
}

// The buffer of a frame this connection's page answered: its description with the descriptor, then
// Status 0 (1 when the buffer is gone). Asking for any other buffer is out of turn.
bool FrameService::mapBuffer(Connection& c, uint64_t bufferId) {
    std::shared_ptr<sensor_sim::Buffer> buffer;
    {
        std::lock_guard<std::mutex> lock(c.pageMutex);
        auto it = c.offered.find(bufferId);
        if (it == c.offered.end()) return false;
        buffer = it->second.lock();
    }
    if (!buffer) return c.send(msg::Status{1, 0});
    c.sent.insert(bufferId);
    return c.send(msg::describeBuffer(bufferId, *buffer), buffer->sharedFd()) && c.send(msg::Status{0, 0});
}

bool FrameService::sendFrame(Connection& c, int result, const FrameSpec& frame) {
    if (result == 0 && (!frame.buffer || frame.buffer->sharedFd() < 0)) {
        c.record->local->releaseFrame(c.pendingStream, c.pendingOutput, frame.objIndex, frame.counter);
        result = 1;
    }
    if (result != 0) return c.send(frameAnswer(result, frame, 0));
    const uint64_t id = frame.buffer->serial();
    if (c.sent.insert(id).second && !c.send(msg::describeBuffer(id, *frame.buffer), frame.buffer->sharedFd()))
        return false;
    ++c.record->received;
    return c.send(frameAnswer(0, frame, id));
}

bool FrameService::getFrame(Connection& c, uint32_t stream, uint32_t output, bool noWait) {
    FrameSpec frame;
    std::chrono::milliseconds wait{0};
    c.pendingStream = stream;
    c.pendingOutput = output;
    const int result = c.record->local->takeFrame(stream, output, &frame, &wait);
    if (c.page) {
        std::lock_guard<std::mutex> lock(c.pageMutex);
        refreshAvailable(c, stream, output);
    }
    if (result == sensor_sim::streams::kNoFrame && wait.count() > 0 && !noWait) {
        // The client sends nothing while its get is unanswered.
        c.pending = true;
        c.pendingDeadline = Clock::now() + wait;
        m_waiting.push_back(&c);
        m_waitingCount.store(m_waiting.size());
        return true;
    }
    return sendFrame(c, result, frame);
}

bool FrameService::answerPending(Connection& c) {
    FrameSpec frame;
    std::chrono::milliseconds wait{0};
    const int result = c.record->local->takeFrame(c.pendingStream, c.pendingOutput, &frame, &wait);
    c.pending = false;
    return sendFrame(c, result, frame);
}

Clock::time_point FrameService::serveWaiting(Clock::time_point now) {
    std::set<std::pair<uint32_t, uint32_t>> delivered;
    {
        std::lock_guard<std::mutex> lock(m_deliveredMutex);
        delivered.swap(m_delivered);
    }
    Clock::time_point next = Clock::time_point::max();
    for (size_t i = 0; i < m_waiting.size();) {
        Connection& c = *m_waiting[i];
        const bool due = now >= c.pendingDeadline || delivered.count({c.pendingStream, c.pendingOutput}) != 0 ||
                         c.record->local->waitingFrames(c.pendingStream, c.pendingOutput) != 0;
        if (!due) {
            next = std::min(next, c.pendingDeadline);
            ++i;
            continue;
        }
        m_waiting.erase(m_waiting.begin() + static_cast<std::ptrdiff_t>(i));
        // A get whose frame another connection of the consumer took waits on, until its time is up.
        FrameSpec frame;
        std::chrono::milliseconds wait{0};
        const int result = c.record->local->takeFrame(c.pendingStream, c.pendingOutput, &frame, &wait);
        if (result == sensor_sim::streams::kNoFrame && wait.count() > 0 && now < c.pendingDeadline) {
            m_waiting.insert(m_waiting.begin() + static_cast<std::ptrdiff_t>(i), &c);
            next = std::min(next, c.pendingDeadline);
            ++i;
            continue;
        }
        c.pending = false;
        if (!sendFrame(c, result, frame)) ::shutdown(c.fd(), SHUT_RDWR);
    }
    m_waitingCount.store(m_waiting.size());
    return next;
}

void FrameService::tornDown(uint64_t consumer, const std::vector<Connection*>& connections) {
    for (size_t i = 0; i < m_waiting.size();) {
        Connection& c = *m_waiting[i];
        if (c.consumer != consumer) {
            ++i;
            continue;
        }
        m_waiting.erase(m_waiting.begin() + static_cast<std::ptrdiff_t>(i));
        if (!answerPending(c)) ::shutdown(c.fd(), SHUT_RDWR);
    }
    m_waitingCount.store(m_waiting.size());
    // Gets waiting on the consumer's pages are answered now too (with the torn stream's status).
    for (Connection* other : connections) {
        std::shared_lock<std::shared_mutex> links(m_linksMutex);
        std::lock_guard<std::mutex> lock(other->pageMutex);
        if (!other->page || other->pageBroken) continue;
        wire::ControlPage& page = other->page->page();
        uint32_t get = page.get.load();
        if (wire::pagePhase(get) != wire::kPageWaiting) continue;
        if (!page.get.compare_exchange_strong(get, wire::kPageClaimed)) continue;
        const uint32_t stream = wire::pageStream(get), output = wire::pageOutput(get);
        FrameSpec frame;
        std::chrono::milliseconds wait{0};
        answerPage(*other, stream, output, other->record->local->takeFrame(stream, output, &frame, &wait), frame);
    }
}

void FrameService::forget(Connection& c) {
    m_waiting.erase(std::remove(m_waiting.begin(), m_waiting.end(), &c), m_waiting.end());
    m_waitingCount.store(m_waiting.size());
    std::unique_lock<std::shared_mutex> links(m_linksMutex);
    m_linked.erase(std::remove(m_linked.begin(), m_linked.end(), &c), m_linked.end());
    std::lock_guard<std::mutex> lock(c.pageMutex);
    drain(c);  // releases still in the ring count before the consumer goes
}

void FrameService::drainPages(uint64_t consumer) {
    forEachPage([&](Connection& c) {
        if (consumer == 0 || c.consumer == consumer) drain(c);
    });
}

void FrameService::closePages() {
    forEachPage([](Connection& c) {
        c.page->page().get.store(wire::kPageClosed);
        wire::wakePage(c.page->page());
    });
}

}  // namespace sensor_simd
