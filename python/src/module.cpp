// The _sensoripc extension of the sensoripc package: sensors and their control calls, consumers over the
// consumer library's sessions, frames whose planes are read-only numpy views onto the frame buffers,
// and the library's result codes as one exception hierarchy. Every blocking call releases the GIL.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sensor_consumer/counters.h"
#include "sensor_consumer/errors.h"
#include "sensor_consumer/geometry.h"
#include "sensor_consumer/names.h"
#include "sensor_consumer/session.h"
#include "sensor_ipc_client.h"

namespace py = pybind11;
namespace sc = sensor_consumer;
using namespace vexa::cameraipcclient;

#ifndef SENSORIPC_VERSION
#define SENSORIPC_VERSION "0"
#endif

namespace {

// ---- Errors: sensoripc.Error and one subclass per result code, raised from sensor_consumer::Error.

struct ErrorTypes {
    py::object base;
    std::map<int32_t, py::object> byCode;
    py::object connectionTimeout;
};
ErrorTypes& errorTypes() {
    static ErrorTypes* types = new ErrorTypes();  // lives as long as the interpreter's module
    return *types;
}

void setError(const py::object& type, const std::string& message, std::optional<int32_t> result,
              const std::string& call) {
    py::object error = type(message);
    error.attr("result") = result ? py::cast(*result) : py::none();
    error.attr("call") = call;
    PyErr_SetObject(type.ptr(), error.ptr());
}

[[noreturn]] void raiseError(const py::object& type, const std::string& message, std::optional<int32_t> result,
                             const std::string& call) {
    setError(type, message, result, call);
    throw py::error_already_set();
}

// The class of a result code: its own subclass, or sensoripc.Error for a code the library does not name.
void setLibraryError(const std::string& call, int32_t result, const std::string& message = {}) {
    auto& types = errorTypes();
    auto it = types.byCode.find(result);
    setError(it != types.byCode.end() ? it->second : types.base,
             message.empty() ? sc::Error(call, result).what() : message, result, call);
}

[[noreturn]] void raiseLibrary(const std::string& call, int32_t result, const std::string& message = {}) {
    setLibraryError(call, result, message);
    throw py::error_already_set();
}

void check(const char* call, int32_t result) {
    if (result != RESULT_OK) raiseLibrary(call, result);
}

// A name that matches none: ValueError naming what exists.
uint32_t sensorArg(const py::handle& value) {
    if (py::isinstance<py::int_>(value)) {
        const long id = value.cast<long>();
        if (id < 0 || id >= long(sc::kSensorCount))
            throw py::value_error("sensor id " + std::to_string(id) + " is out of range (0-21)");
        return uint32_t(id);
    }
    return sc::parseSensor(value.cast<std::string>());
}

uint32_t appArg(const py::handle& value, uint32_t fallback) {
    if (value.is_none()) return fallback;
    if (py::isinstance<py::int_>(value)) return value.cast<uint32_t>();
    return sc::parseApp(value.cast<std::string>());
}

// Waits in slices of the GIL released, so that a signal (Ctrl-C) raises between them.
void checkSignals() {
    if (PyErr_CheckSignals() != 0) throw py::error_already_set();
}

// ---- Consumers and frames.

// What a frame's numpy views keep alive (their base): the frame, until the views go or, for views the
// consumer reuses, until the frame is released with no view taken out of it.
struct HoldBox {
    std::shared_ptr<struct Held> held;
};

// A pool buffer's plane views, made once and handed to each frame of that buffer while nobody else
// holds them: the views of a frame cost no allocation.
struct CachedPlanes {
    py::object planes;  // tuple of arrays, whose base is `hold`
    py::object hold;    // HoldBox
};

// One session's state shared by its consumer and every frame (and view) it handed out: a session stays
// open while any of them lives. The plane cache is emptied (with the GIL) when the consumer closes.
struct Shared {
    std::shared_ptr<sc::Session> session;
    sc::LayoutCache layouts;
    std::atomic<int64_t> held{0};
    std::map<const sc::MappedLayout*, CachedPlanes> planes;
};

// A frame the library holds for Python: returned when the last of its Frame objects and numpy views goes.
struct Held {
    std::shared_ptr<Shared> shared;
    sc::Frame frame;
    Held(std::shared_ptr<Shared> s, const sc::Frame& f) : shared(std::move(s)), frame(f) { ++shared->held; }
    ~Held() {
        shared->session->releaseLater(frame);
        --shared->held;
    }
    Held(const Held&) = delete;
    Held& operator=(const Held&) = delete;
};

py::dtype sampleType(const sc::PlaneLayout& plane) {
    return plane.sampleBytes == 2 ? py::dtype::of<uint16_t>() : py::dtype::of<uint8_t>();
}

// Only `owners` references: nobody took the object out.
bool unshared(const py::object& o, Py_ssize_t owners) {
    return Py_REFCNT(o.ptr()) <= owners;
}

// The views of a cached set are free when only the cache (and `frameRefs` frames) reference them.
bool viewsFree(const CachedPlanes& c, Py_ssize_t frameRefs) {
    if (!unshared(c.planes, 1 + frameRefs)) return false;
    for (const py::handle& a : c.planes)
        if (Py_REFCNT(a.ptr()) > 1) return false;
    return true;
}

class PyFrame {
public:
    PyFrame(std::shared_ptr<Held> held, NvSciBufObj image, bool raw) : m_held(std::move(held)), m_raw(raw) {
        std::string error;
        m_layout = m_held->shared->layouts.find(image, error);
        if (!m_layout) raiseLibrary("describe", RESULT_ACCESS_FAILED, "frame " + std::to_string(counter()) + ": " + error);
    }
    PyFrame(PyFrame&&) = default;
    PyFrame(const PyFrame&) = delete;
    ~PyFrame() { release(); }

    const sc::Frame& frame() const { return held().frame; }
    uint32_t counter() const { return m_held ? m_held->frame.counter : m_counter; }
    std::string sensor() const { return sc::sensorName(frame().sensor); }
    uint32_t sensorId() const { return frame().sensor; }
    double timestamp() const { return double(frame().timestampMs) / 1000.0; }
    uint64_t exposureUs() const { return frame().exposureUs; }
    uint32_t width() const { return m_layout->layout.width; }
    uint32_t height() const { return m_layout->layout.height; }
    std::string format() const { return sc::pixelFormatName(m_layout->layout.format); }
    bool isRaw() const { return m_raw; }
    bool released() const { return !m_held; }

    // Read-only views onto the frame buffer; each keeps the frame held while it lives.
    py::tuple planes() {
        if (!m_planes.is_none()) return m_planes;
        Shared& shared = *held_()->shared;
        auto cached = shared.planes.find(m_layout.get());
        if (cached != shared.planes.end() && viewsFree(cached->second, 0)) {
            cached->second.hold.cast<HoldBox&>().held = m_held;
            m_planes = cached->second.planes;
            m_cached = true;
            return m_planes;
        }
        const auto& layout = m_layout->layout;
        py::object base = py::cast(HoldBox{m_held});
        py::tuple out(layout.planeCount);
        for (uint32_t i = 0; i < layout.planeCount; ++i) {
            const sc::PlaneLayout& p = layout.planes[i];
            std::vector<py::ssize_t> shape{py::ssize_t(p.lines), py::ssize_t(p.width)};
            std::vector<py::ssize_t> strides{py::ssize_t(p.pitch), py::ssize_t(p.sampleBytes * p.channels)};
            if (p.channels > 1) {
                shape.push_back(p.channels);
                strides.push_back(p.sampleBytes);
            }
            py::array view(sampleType(p), shape, strides, m_layout->base + p.offset, base);
            py::detail::array_proxy(view.ptr())->flags &= ~py::detail::npy_api::NPY_ARRAY_WRITEABLE_;
            out[i] = std::move(view);
        }
        m_planes = out;
        if (cached == shared.planes.end()) {
            shared.planes[m_layout.get()] = CachedPlanes{out, base};
            m_cached = true;
        }
        return out;
    }

    // Owned copies of the planes: from the library's CPU copy when the get made one (current API,
    // Consumer(cpu=True)), else line by line from the buffer.
    py::tuple copy() {
        py::tuple views = planes();
        const sc::Frame& f = frame();
        py::tuple out(views.size());
        const auto& layout = m_layout->layout;
        const uint8_t* cpu = (!m_raw && f.cpuData != nullptr) ? f.cpuData : nullptr;
        uint64_t cpuOffset = 0;
        for (size_t i = 0; i < views.size(); ++i) {
            const sc::PlaneLayout& p = layout.planes[i];
            py::array view = views[i].cast<py::array>();
            py::array owned(view.dtype(), std::vector<py::ssize_t>(view.shape(), view.shape() + view.ndim()));
            auto* to = static_cast<uint8_t*>(owned.mutable_data());
            const uint64_t bytes = uint64_t(p.lineBytes) * p.lines;
            if (cpu != nullptr && cpuOffset + bytes <= f.cpuDataSize) {
                std::memcpy(to, cpu + cpuOffset, bytes);  // the library's copy: lines without padding
                cpuOffset += bytes;
            } else {
                for (uint32_t y = 0; y < p.lines; ++y)
                    std::memcpy(to + uint64_t(y) * p.lineBytes, m_layout->base + p.offset + uint64_t(y) * p.pitch, p.lineBytes);
                cpu = nullptr;
            }
            out[i] = std::move(owned);
        }
        return out;
    }

    py::object raw() {
        if (m_raw || frame().rawImage == nullptr) return py::none();
        if (m_rawFrame.is_none()) m_rawFrame = py::cast(PyFrame(held_(), frame().rawImage, true));
        return m_rawFrame;
    }

    py::dict roiStats() {
        std::vector<uint8_t> area(65536);
        CameraFrameRoiStatsData stats{};
        stats.roiData = area.data();
        int32_t result = 0;
        {
            py::gil_scoped_release unlocked;
            result = held().shared->session->roiStats(frame(), stats);
        }
        check("GetFrameRoiStatsData", result);
        // Cells of 16 bytes, four values of 4 bytes each, packed region after region.
        py::array_t<uint32_t> cells({py::ssize_t(stats.roiDataSize / 16), py::ssize_t(4)});
        std::memcpy(cells.mutable_data(), area.data(), stats.roiDataSize / 16 * 16);
        py::dict d;
        d["valid"] = stats.valid != 0;
        d["brightness"] = stats.brightness;
        d["frame_id"] = stats.frameId;
        d["roi_count"] = stats.roiCount;
        d["roi_cell_count"] = stats.roiCellCount;
        d["cell_value_count"] = stats.cellValueCount;
        d["cells"] = cells;
        return d;
    }

    // Gives the frame up: returned at once when no view of it lives, else when the last view goes.
    void release() {
        if (m_rawFrame && !m_rawFrame.is_none()) m_rawFrame.cast<PyFrame&>().release();
        m_rawFrame = py::none();
        if (m_cached && m_held) {
            // Views the consumer reuses: let go of the frame now, unless a view was taken out; then the
            // views are the user's, and the frame goes with the last of them.
            auto& cache = m_held->shared->planes;
            auto it = cache.find(m_layout.get());
            if (it != cache.end() && it->second.planes.is(m_planes)) {
                if (viewsFree(it->second, 1)) {
                    it->second.hold.cast<HoldBox&>().held.reset();
                } else {
                    cache.erase(it);
                }
            }
        }
        m_cached = false;
        m_planes = py::none();
        if (m_held) m_counter = m_held->frame.counter;
        m_held.reset();
    }

private:
    const Held& held() const {
        if (!m_held) throw py::value_error("the frame was released");
        return *m_held;
    }
    std::shared_ptr<Held> held_() const {
        held();
        return m_held;
    }

    std::shared_ptr<Held> m_held;
    std::shared_ptr<const sc::MappedLayout> m_layout;
    bool m_raw = false;
    bool m_cached = false;  // m_planes are the consumer's reused views
    uint32_t m_counter = 0;
    py::object m_planes = py::none();
    py::object m_rawFrame = py::none();
};

class PyConsumer {
public:
    PyConsumer(const py::object& sensors, const py::object& app, bool raw, bool cpu, const py::object& sensorApp,
               double connectTimeout, uint32_t frameTimeoutMs)
        : m_cpu(cpu) {
        std::vector<uint32_t> ids;
        if (py::isinstance<py::str>(sensors) || py::isinstance<py::int_>(sensors)) {
            ids.push_back(sensorArg(sensors));
        } else {
            for (const py::handle& s : sensors) ids.push_back(sensorArg(s));
        }
        if (ids.empty()) throw py::value_error("no sensor given (known: " + known() + ")");
        std::vector<uint32_t> legacy, current;
        for (uint32_t id : ids) {
            if (sc::servedByLegacy(id)) {
                legacy.push_back(id);
            } else if (sc::servedByCurrent(id)) {
                current.push_back(id);
            } else {
                throw py::value_error(std::string("sensor ") + sc::sensorName(id) + " has no stream");
            }
        }
        if (raw) {
            for (uint32_t id : ids)
                if (!sc::sensorEntry(id).hasRaw)
                    throw py::value_error(std::string("sensor ") + sc::sensorName(id) +
                                          " has no raw frames (only wide and narrow have)");
        }
        const uint32_t legacyApp = appArg(app, sc::defaultApp(sc::Api::Legacy));
        const uint32_t currentApp = legacy.empty() ? appArg(app, sc::defaultApp(sc::Api::Current))
                                                   : appArg(sensorApp, sc::defaultApp(sc::Api::Current));
        try {
            if (!legacy.empty()) openSession({legacyApp, sc::Api::Legacy, raw, frameTimeoutMs}, legacy);
            if (!current.empty()) openSession({currentApp, sc::Api::Current, false, frameTimeoutMs}, current);
            for (auto& part : m_parts) start(*part, connectTimeout);
        } catch (...) {
            close();
            throw;
        }
    }
    ~PyConsumer() { close(); }

    // The next frame of the consumer's sensors (in turn), waiting at most `timeout` seconds (None: for ever).
    PyFrame get(std::optional<double> timeout) {
        if (m_parts.empty()) throw py::value_error("the consumer is closed");
        const auto deadline = std::chrono::steady_clock::now() +
                              std::chrono::microseconds(int64_t((timeout ? *timeout : 0) * 1e6));
        for (;;) {
            Part& part = *m_parts[m_next % m_parts.size()];
            const uint32_t sensor = part.sensors[part.next++ % part.sensors.size()];
            ++m_next;
            sc::Frame frame;
            int32_t result = 0;
            sc::GetStatus status;
            {
                py::gil_scoped_release unlocked;
                status = part.shared->session->get(sensor, frame, result, m_cpu);
            }
            auto& counters = m_counters[sensor];
            switch (status) {
                case sc::GetStatus::Frame: {
                    counters.onFrame(frame.counter);
                    if (frame.rawImage != nullptr) counters.onPaired();
                    auto held = std::make_shared<Held>(part.shared, frame);
                    return PyFrame(std::move(held), frame.image, false);
                }
                case sc::GetStatus::PairFailed:
                    counters.onPairFailure();
                    break;
                case sc::GetStatus::NoFrame:
                    counters.onNoFrame();
                    break;
                case sc::GetStatus::CopyFailed:
                case sc::GetStatus::Error:
                    counters.onError(result);
                    raiseLibrary(part.shared->session->options().api == sc::Api::Legacy ? "GetFrame" : "getFrame",
                                 result);
            }
            checkSignals();
            if (timeout && std::chrono::steady_clock::now() >= deadline) {
                auto& types = errorTypes();
                raiseError(types.byCode.at(RESULT_STREAM_CODE_9),
                           "no frame within " + std::to_string(*timeout) + " s", int32_t(RESULT_STREAM_CODE_9),
                           "getFrame");
            }
        }
    }

    // Frames (and their views) still held.
    int64_t held() const {
        int64_t n = 0;
        for (const auto& p : m_parts) n += p->shared->held.load();
        return n;
    }

    py::dict stats() const {
        py::dict out;
        for (const auto& [id, c] : m_counters) {
            py::dict d;
            d["frames"] = c.frames();
            d["gaps"] = c.gaps();
            d["out_of_order"] = c.outOfOrder();
            d["no_frame"] = c.noFrame();
            d["paired"] = c.paired();
            d["pair_failures"] = c.pairFailures();
            out[py::str(sc::sensorName(id))] = d;
        }
        return out;
    }

    // Ends the consumer; a session whose frames (or views) still live closes when the last of them goes.
    void close() {
        for (auto& part : m_parts) part->shared->planes.clear();
        for (auto& part : m_parts) {
            auto shared = std::move(part->shared);
            py::gil_scoped_release unlocked;
            shared.reset();
        }
        m_parts.clear();
    }

private:
    struct Part {
        std::shared_ptr<Shared> shared;
        std::vector<uint32_t> sensors;
        size_t next = 0;
    };

    static std::string known() {
        std::string out;
        for (const auto& n : sc::sensorNames()) out += (out.empty() ? "" : ", ") + n;
        return out;
    }

    void openSession(const sc::SessionOptions& options, const std::vector<uint32_t>& ids) {
        auto part = std::make_unique<Part>();
        part->shared = std::make_shared<Shared>();
        part->shared->session = std::make_shared<sc::Session>(options);
        std::vector<uint32_t> present;
        {
            py::gil_scoped_release unlocked;
            present = part->shared->session->open(ids);
        }
        if (present.size() != ids.size()) {
            std::string missing;
            for (uint32_t id : ids)
                if (std::find(present.begin(), present.end(), id) == present.end())
                    missing += std::string(missing.empty() ? "" : ", ") + sc::sensorName(id);
            raiseLibrary("init", RESULT_ERROR, "sensors not present: " + missing);
        }
        part->sensors = present;
        m_parts.push_back(std::move(part));
    }

    void start(Part& part, double limitS) {
        sc::Session& session = *part.shared->session;
        session.beginStart();
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::microseconds(int64_t(limitS * 1e6));
        for (;;) {
            int32_t result = 0;
            sc::Session::StartState state;
            {
                py::gil_scoped_release unlocked;
                state = session.waitStarted(std::chrono::milliseconds(20), &result);
            }
            if (state == sc::Session::StartState::Connected) return;
            if (state == sc::Session::StartState::Failed) raiseLibrary("start", result);
            if (PyErr_CheckSignals() != 0) {
                {
                    py::gil_scoped_release unlocked;
                    session.cancelStart();
                }
                throw py::error_already_set();
            }
            if (std::chrono::steady_clock::now() >= deadline) {
                {
                    py::gil_scoped_release unlocked;
                    session.cancelStart();
                }
                raiseError(errorTypes().connectionTimeout,
                           "the stream connection was not made within " + std::to_string(limitS) + " s", std::nullopt,
                           "start");
            }
        }
    }

    bool m_cpu;
    std::vector<std::unique_ptr<Part>> m_parts;
    size_t m_next = 0;
    std::map<uint32_t, sc::FrameCounters> m_counters;
};

// ---- Sensor control through the current facade (no registration needed).

vexa::sensor_access::SensorIpcClient controlClient(const py::object& app) {
    return vexa::sensor_access::SensorIpcClient(static_cast<AppType>(appArg(app, sc::defaultApp(sc::Api::Current))));
}

template <typename Fn>
int32_t unlocked(Fn fn) {
    py::gil_scoped_release release;
    return fn();
}

py::bytes bytesOf(const uint8_t* data, size_t n) {
    return py::bytes(reinterpret_cast<const char*>(data), n);
}

py::list sensors(const py::object& app) {
    auto client = controlClient(app);
    std::vector<SensorTypeInfo> types;
    std::vector<SensorInfo> infos;
    unsigned int link = 0, video = 0;
    std::map<SensorType, unsigned char> states;
    check("getAllSensorTypeInfo", unlocked([&] { return client.getAllSensorTypeInfo(types); }));
    check("getSensorInfo", unlocked([&] { return client.getSensorInfo(infos); }));
    const int32_t statusResult = unlocked([&] { return client.getSensorStatus(link, video, states); });
    py::module_ records = py::module_::import("sensoripc._records");
    py::list out;
    for (uint32_t id = 0; id < sc::kSensorCount; ++id) {
        const SensorTypeInfo type = id < types.size() ? types[id] : SensorTypeInfo{false, 0};
        py::object info = py::none(), v0 = py::none(), v1 = py::none();
        if (id < infos.size()) {
            info = bytesOf(infos[id].sensorAttr, 6);
            v0 = bytesOf(infos[id].verData0.data(), infos[id].verData0.size());
            v1 = bytesOf(infos[id].verData1.data(), infos[id].verData1.size());
        }
        auto state = states.find(static_cast<SensorType>(id));
        const bool known = statusResult == RESULT_OK;
        out.append(records.attr("Sensor")(
            id, sc::sensorName(id), sc::kindName(sc::sensorEntry(id).kind), type.present, type.typeCode, info, v0, v1,
            known ? py::cast(bool(link >> id & 1u)) : py::none(), known ? py::cast(bool(video >> id & 1u)) : py::none(),
            state != states.end() ? py::cast(int(state->second)) : py::none()));
    }
    return out;
}

}  // namespace

PYBIND11_MODULE(_sensoripc, m) {
    m.doc() = "Sensors, frames and sensor control of the vehicle through the sensor IPC client";
    m.attr("__version__") = SENSORIPC_VERSION;

    // The exception hierarchy: sensoripc.Error, then one class per cause.
    auto& types = errorTypes();
    types.base = py::reinterpret_steal<py::object>(PyErr_NewExceptionWithDoc(
        "sensoripc.Error", "A library call failed; .result is its result code (None when it has none), .call the call.",
        PyExc_RuntimeError, nullptr));
    m.attr("Error") = types.base;
    struct Cause {
        int32_t code;
        const char* name;
        PyObject* also;
        const char* doc;
    };
    const Cause causes[] = {
        {RESULT_FAILED, "FailedError", nullptr, "RESULT_FAILED: a CPU copy or a raw pairing failed"},
        {RESULT_ERROR, "StreamError", nullptr, "RESULT_ERROR: registration, connection or a get refused"},
        {RESULT_BAD_PARAM, "BadParamError", nullptr, "RESULT_BAD_PARAM: an argument the library refuses"},
        {RESULT_ACCESS_FAILED, "AccessFailedError", nullptr, "RESULT_ACCESS_FAILED: a release or control call refused"},
        {RESULT_STREAM_CODE_9, "NoFrameError", PyExc_TimeoutError, "RESULT_STREAM_CODE_9: no frame within the time-out"},
        {RESULT_STREAM_CODE_10, "StreamRefusedError", nullptr, "RESULT_STREAM_CODE_10: the stream refused the get"},
        {RESULT_NOT_INIT, "NotInitError", nullptr, "RESULT_NOT_INIT: a call before the registration"},
        {RESULT_BUFFER_TOO_SMALL, "BufferTooSmallError", nullptr, "RESULT_BUFFER_TOO_SMALL: the fault list does not fit"},
        {RESULT_SERVICE_FAILED, "ServiceFailedError", nullptr, "RESULT_SERVICE_FAILED: the camera-access service failed"},
    };
    for (const Cause& c : causes) {
        py::object bases = c.also != nullptr ? py::make_tuple(types.base, py::handle(c.also)) : types.base;
        auto type = py::reinterpret_steal<py::object>(
            PyErr_NewExceptionWithDoc((std::string("sensoripc.") + c.name).c_str(), c.doc, bases.ptr(), nullptr));
        types.byCode[c.code] = type;
        m.attr(c.name) = type;
    }
    types.connectionTimeout = py::reinterpret_steal<py::object>(PyErr_NewExceptionWithDoc(
        "sensoripc.ConnectionTimeoutError", "The stream connection was not made in time.",
        py::make_tuple(types.base, py::handle(PyExc_TimeoutError)).ptr(), nullptr));
    m.attr("ConnectionTimeoutError") = types.connectionTimeout;
    py::register_exception_translator([](std::exception_ptr p) {
        try {
            if (p) std::rethrow_exception(p);
        } catch (const sc::NameError& e) {
            PyErr_SetString(PyExc_ValueError, e.what());
        } catch (const sc::Error& e) {
            setLibraryError(e.call(), e.result(), e.what());
        }
    });

    py::class_<HoldBox>(m, "_FrameHold", "What a frame's views keep alive.");
    py::class_<PyFrame>(m, "Frame", "A frame held from the library; planes are read-only views onto its buffer.")
        .def_property_readonly("sensor", &PyFrame::sensor)
        .def_property_readonly("sensor_id", &PyFrame::sensorId)
        .def_property_readonly("counter", &PyFrame::counter)
        .def_property_readonly("timestamp", &PyFrame::timestamp)
        .def_property_readonly("exposure_us", &PyFrame::exposureUs)
        .def_property_readonly("width", &PyFrame::width)
        .def_property_readonly("height", &PyFrame::height)
        .def_property_readonly("format", &PyFrame::format)
        .def_property_readonly("is_raw", &PyFrame::isRaw)
        .def_property_readonly("released", &PyFrame::released)
        .def_property_readonly("planes", &PyFrame::planes)
        .def_property_readonly("raw", &PyFrame::raw)
        .def("copy", &PyFrame::copy)
        .def("roi_stats", &PyFrame::roiStats)
        .def("release", &PyFrame::release)
        .def("__enter__", [](py::object self) { return self; })
        .def("__exit__", [](PyFrame& f, py::args) { f.release(); });

    py::class_<PyConsumer>(m, "Consumer", "Frames of chosen sensors; a context manager and an iterator.")
        .def(py::init<py::object, py::object, bool, bool, py::object, double, uint32_t>(), py::arg("sensors"),
             py::arg("app") = py::none(), py::arg("raw") = false, py::arg("cpu") = false,
             py::arg("sensor_app") = py::none(), py::arg("connect_timeout") = 10.0, py::arg("frame_timeout_ms") = 50)
        .def("get", &PyConsumer::get, py::arg("timeout") = py::none())
        .def_property_readonly("held", &PyConsumer::held)
        .def_property_readonly("stats", &PyConsumer::stats)
        .def("close", &PyConsumer::close)
        .def("__enter__", [](py::object self) { return self; })
        .def("__exit__", [](PyConsumer& c, py::args) { c.close(); })
        .def("__iter__", [](py::object self) { return self; })
        .def("__next__", [](PyConsumer& c) { return c.get(std::nullopt); });

    m.def("sensors", &sensors, py::kw_only(), py::arg("app") = py::none());
    m.def("sensor_names", [] { return sc::sensorNames(); });
    m.def("app_names", [] { return sc::appNames(); });
    m.def(
        "status",
        [](const py::object& app) {
            auto client = controlClient(app);
            unsigned int link = 0, video = 0;
            std::map<SensorType, unsigned char> states;
            check("getSensorStatus", unlocked([&] { return client.getSensorStatus(link, video, states); }));
            py::dict byName;
            for (const auto& [id, state] : states) byName[py::str(sc::sensorName(id))] = int(state);
            return py::module_::import("sensoripc._records").attr("Status")(link, video, byName);
        },
        py::kw_only(), py::arg("app") = py::none());
    m.def(
        "read_register",
        [](const py::object& sensor, uint16_t reg, int width, const py::object& app) -> int {
            auto client = controlClient(app);
            const auto type = static_cast<SensorType>(sensorArg(sensor));
            if (width == 8) {
                unsigned char v = 0;
                check("readSensorRegUint8", unlocked([&] { return client.readSensorRegUint8(type, reg, v); }));
                return v;
            }
            if (width != 16) throw py::value_error("width is 8 or 16");
            unsigned short v = 0;
            check("readSensorRegUint16", unlocked([&] { return client.readSensorRegUint16(type, reg, v); }));
            return v;
        },
        py::kw_only(), py::arg("sensor"), py::arg("reg"), py::arg("width") = 8, py::arg("app") = py::none());
    m.def(
        "write_register",
        [](const py::object& sensor, uint16_t reg, uint32_t value, int width, const py::object& app) {
            auto client = controlClient(app);
            const auto type = static_cast<SensorType>(sensorArg(sensor));
            if (width == 8) {
                if (value > 0xFF) throw py::value_error("an 8-bit register takes 0-255");
                check("writeSensorRegUint8",
                      unlocked([&] { return client.writeSensorRegUint8(type, reg, (unsigned char)value, 0); }));
                return;
            }
            if (width != 16 || value > 0xFFFF) throw py::value_error("width is 8 or 16, value fits it");
            check("writeSensorRegUint16",
                  unlocked([&] { return client.writeSensorRegUint16(type, reg, (unsigned short)value, 0); }));
        },
        py::kw_only(), py::arg("sensor"), py::arg("reg"), py::arg("value"), py::arg("width") = 8,
        py::arg("app") = py::none());
    m.def(
        "i2c_read",
        [](const py::object& sensor, uint16_t addr, uint16_t length, const py::object& app) {
            if (length == 0) throw py::value_error("length is at least 1");
            auto client = controlClient(app);
            const auto type = static_cast<SensorType>(sensorArg(sensor));
            std::vector<unsigned char> data(65536);
            unsigned short len = length;
            check("readSensorI2C", unlocked([&] { return client.readSensorI2C(type, addr, data.data(), len); }));
            return bytesOf(data.data(), len);
        },
        py::kw_only(), py::arg("sensor"), py::arg("addr"), py::arg("length"), py::arg("app") = py::none());
    m.def(
        "i2c_write",
        [](const py::object& sensor, uint16_t addr, const py::bytes& data, const py::object& app) {
            auto client = controlClient(app);
            const auto type = static_cast<SensorType>(sensorArg(sensor));
            const std::string bytes = data;
            if (bytes.empty() || bytes.size() > 0xFFFF) throw py::value_error("1 to 65535 bytes");
            check("writeSensorI2C", unlocked([&] {
                      return client.writeSensorI2C(type, addr, reinterpret_cast<const unsigned char*>(bytes.data()),
                                                   (unsigned short)bytes.size(), 0);
                  }));
        },
        py::kw_only(), py::arg("sensor"), py::arg("addr"), py::arg("data"), py::arg("app") = py::none());
    m.def(
        "set_frame_sync",
        [](uint32_t group, unsigned long deltaMs, const py::object& app) {
            if (group > 3) throw py::value_error("group is 0-3");
            auto client = controlClient(app);
            check("setFsyncDeltaMs",
                  unlocked([&] { return client.setFsyncDeltaMs(static_cast<GroupId>(group), deltaMs); }));
        },
        py::kw_only(), py::arg("group"), py::arg("delta_ms"), py::arg("app") = py::none());
    m.def(
        "frame_sync_start",
        [](const py::object& app) {
            auto client = controlClient(app);
            unsigned long time = 0;
            check("getSensorFsyncStartTime", unlocked([&] { return client.getSensorFsyncStartTime(time); }));
            return time;
        },
        py::kw_only(), py::arg("app") = py::none());
    m.def(
        "diagnostics",
        [](uint16_t a, uint16_t b, uint16_t capacity, const py::object& app) {
            auto client = controlClient(app);
            InnerParaState radar{}, lidar{};
            check("getRadarInnerParaState", unlocked([&] { return client.getRadarInnerParaState(radar); }));
            check("getLidarInnerParaState", unlocked([&] { return client.getLidarInnerParaState(lidar); }));
            std::vector<unsigned short> faults(capacity);
            unsigned short count = capacity;
            unsigned long time = 0;
            check("getRadarLev2FaultInfo",
                  unlocked([&] { return client.getRadarLev2FaultInfo(a, b, faults.data(), count, time); }));
            faults.resize(count);
            return py::module_::import("sensoripc._records")
                .attr("Diagnostics")(int(radar), int(lidar), py::cast(faults), time);
        },
        py::kw_only(), py::arg("a") = 0, py::arg("b") = 0, py::arg("capacity") = 256, py::arg("app") = py::none());
}
