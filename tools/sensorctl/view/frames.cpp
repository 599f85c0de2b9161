// The view's frame taking: every frame is taken at the stream's rate; the latest one of each sensor
// stays held for the pictures, the one it replaces goes back at once.
#include "frames.h"

#include <algorithm>

namespace sensorctl::view {

using sensor_consumer::Frame;
using sensor_consumer::GetStatus;
using sensor_consumer::MappedLayout;
using sensor_consumer::steadyUs;

namespace {
// Brightness statistics are asked for at most this often per camera: they are for a person to read.
constexpr uint64_t kRoiIntervalUs = 500000;
// After a failed get a sensor waits this long, so that a broken stream does not spin the thread.
constexpr auto kErrorBackoff = std::chrono::milliseconds(10);
constexpr size_t kRoiDataBytes = 65536;
}  // namespace

struct Slot {
    uint32_t id = 0;
    bool camera = false;
    bool pairs = false;  // cameras 2 and 3 with raw pairing

    // The held frame, under heldMutex; the taking thread only ever try-locks it.
    std::mutex heldMutex;
    bool held = false;
    Frame frame;
    uint64_t gotUs = 0;
    std::shared_ptr<const MappedLayout> image;
    std::shared_ptr<const MappedLayout> raw;
    std::atomic<uint64_t> sequence{0};

    mutable std::mutex figuresMutex;
    SensorFigures figures;
    uint64_t holdSumUs = 0;
    uint64_t holdCount = 0;
    uint64_t nextRoiUs = 0;
};

FrameTaker::FrameTaker(sensor_consumer::Session& session, std::vector<uint32_t> sensors)
    : m_session(session), m_roiData(kRoiDataBytes) {
    for (uint32_t id : sensors) {
        auto slot = std::make_unique<Slot>();
        slot->id = id;
        slot->camera = session.options().api == sensor_consumer::Api::Legacy;
        slot->pairs = slot->camera && session.options().raw && sensor_consumer::sensorEntry(id).hasRaw;
        slot->figures.id = id;
        m_slots.push_back(std::move(slot));
    }
}

FrameTaker::~FrameTaker() {
    stop();
}

void FrameTaker::begin(std::chrono::milliseconds connect, std::function<bool()> cancel) {
    m_running.store(true);
    m_thread = std::thread([this, connect, cancel = std::move(cancel)] { run(connect, cancel); });
}

void FrameTaker::run(std::chrono::milliseconds connect, const std::function<bool()>& cancel) {
    try {
        using Outcome = sensor_consumer::Session::StartOutcome;
        const Outcome outcome = m_session.start(connect, [&] { return m_stop.load() || cancel(); });
        if (outcome == Outcome::TimedOut) {
            m_timedOut.store(true);
            std::lock_guard<std::mutex> lock(m_failureMutex);
            m_failure = "the stream connection was not made within " + std::to_string(connect.count()) + " ms";
        } else if (outcome == Outcome::Connected) {
            while (!m_stop.load()) {
                for (auto& slot : m_slots) {
                    if (m_stop.load()) break;
                    takeOne(*slot);
                }
            }
        }
    } catch (const std::exception& e) {
        std::lock_guard<std::mutex> lock(m_failureMutex);
        m_failure = e.what();
    }
    m_running.store(false);
}

void FrameTaker::takeOne(Slot& slot) {
    Frame frame;
    int32_t result = 0;
    const uint64_t t0 = steadyUs();
    const GetStatus status = m_session.get(slot.id, frame, result);
    const uint64_t t1 = steadyUs();
    if (status != GetStatus::Frame) {
        {
            std::lock_guard<std::mutex> lock(slot.figuresMutex);
            auto& c = slot.figures.counters;
            if (status == GetStatus::NoFrame) {
                c.onNoFrame();
            } else if (status == GetStatus::PairFailed) {
                c.onPairFailure();  // the library has already returned the processed frame
            } else {
                c.onError(result);
            }
        }
        if (status == GetStatus::Error || status == GetStatus::CopyFailed) std::this_thread::sleep_for(kErrorBackoff);
        return;
    }

    std::string error;
    std::shared_ptr<const MappedLayout> image = m_layouts.find(frame.image, error);
    std::shared_ptr<const MappedLayout> raw;
    if (image && frame.rawImage != nullptr) raw = m_layouts.find(frame.rawImage, error);

    vexa::cameraipcclient::CameraFrameRoiStatsData stats{};
    bool statsAsked = false;
    if (slot.camera && t1 >= slot.nextRoiUs) {
        stats.roiData = m_roiData.data();
        statsAsked = true;
        slot.nextRoiUs = t1 + kRoiIntervalUs;
        m_session.roiStats(frame, stats);
    }
    {
        std::lock_guard<std::mutex> lock(slot.figuresMutex);
        SensorFigures& f = slot.figures;
        f.counters.onFrame(frame.counter, t1, t1 - t0, 0);
        if (slot.pairs) frame.rawImage != nullptr ? f.counters.onPaired() : f.counters.onPairFailure();
        if (statsAsked) {
            f.brightness.valid = stats.valid != 0;
            f.brightness.value = stats.brightness;
            f.brightness.roiCount = stats.roiCount;
            f.brightness.roiCellCount = stats.roiCellCount;
            f.brightness.frameId = stats.frameId;
        }
        if (image) {
            f.width = image->layout.width;
            f.height = image->layout.height;
            f.format = sensor_consumer::pixelFormatName(image->layout.format);
        } else {
            f.lastError = error;
        }
    }

    // The newest frame takes the slot unless a picture is being made from the held one right now; then
    // the newest goes back at once and the next one takes the slot.
    Frame old;
    uint64_t oldGotUs = 0;
    bool hadOld = false;
    bool kept = false;
    if (image && slot.heldMutex.try_lock()) {
        if (slot.held) {
            old = slot.frame;
            oldGotUs = slot.gotUs;
            hadOld = true;
        }
        slot.frame = frame;
        slot.gotUs = t1;
        slot.image = std::move(image);
        slot.raw = std::move(raw);
        slot.held = true;
        slot.sequence.fetch_add(1);
        slot.heldMutex.unlock();
        kept = true;
    }
    const Frame& back = kept ? old : frame;
    if (kept && !hadOld) return;
    const int32_t released = m_session.release(back);
    const uint64_t now = steadyUs();
    std::lock_guard<std::mutex> lock(slot.figuresMutex);
    slot.holdSumUs += now - (kept ? oldGotUs : t1);
    ++slot.holdCount;
    if (released != 0) slot.figures.counters.onError(released);
}

void FrameTaker::releaseHeld(Slot& slot) {
    std::lock_guard<std::mutex> lock(slot.heldMutex);
    if (!slot.held) return;
    m_session.release(slot.frame);
    slot.held = false;
    slot.image.reset();
    slot.raw.reset();
}

void FrameTaker::stop() {
    m_stop.store(true);
    if (m_thread.joinable()) m_thread.join();
    for (auto& slot : m_slots) releaseHeld(*slot);
}

bool FrameTaker::serves(uint32_t sensor) const {
    return std::any_of(m_slots.begin(), m_slots.end(), [&](const auto& s) { return s->id == sensor; });
}

namespace {
template <typename Slots>
auto* findSlot(Slots& slots, uint32_t sensor) {
    for (auto& s : slots) {
        if (s->id == sensor) return s.get();
    }
    return static_cast<decltype(slots.front().get())>(nullptr);
}
}  // namespace

bool FrameTaker::withLatest(uint32_t sensor, const std::function<void(const HeldView&)>& use) {
    Slot* slot = findSlot(m_slots, sensor);
    if (slot == nullptr) return false;
    std::lock_guard<std::mutex> lock(slot->heldMutex);
    if (!slot->held) return false;
    HeldView view;
    view.sensor = sensor;
    view.counter = slot->frame.counter;
    view.sequence = slot->sequence.load();
    view.image = slot->image.get();
    view.raw = slot->raw.get();
    use(view);
    return true;
}

uint64_t FrameTaker::latestSequence(uint32_t sensor) const {
    const Slot* slot = findSlot(m_slots, sensor);
    return slot == nullptr ? 0 : slot->sequence.load();
}

SensorFigures FrameTaker::figures(uint32_t sensor) const {
    const Slot* slot = findSlot(m_slots, sensor);
    if (slot == nullptr) return {};
    std::lock_guard<std::mutex> lock(slot->figuresMutex);
    return slot->figures;
}

double FrameTaker::meanHoldUs(uint32_t sensor) const {
    const Slot* slot = findSlot(m_slots, sensor);
    if (slot == nullptr) return 0;
    std::lock_guard<std::mutex> lock(slot->figuresMutex);
    return slot->holdCount == 0 ? 0.0 : double(slot->holdSumUs) / double(slot->holdCount);
}

std::string FrameTaker::failure() const {
    std::lock_guard<std::mutex> lock(m_failureMutex);
    return m_failure;
}

}  // namespace sensorctl::view
