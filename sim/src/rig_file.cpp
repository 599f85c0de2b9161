// Rig and scenario files: the built-in default rig, the TOML readers (toml++) with messages that name
// the file, line and problem, and the canonical text of a rig.
#include <sys/stat.h>

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>

#define TOML_HEADER_ONLY 1
#define TOML_EXCEPTIONS 0
#include <toml++/toml.h>

#include "sensor_sim/internal/camera_internal.h"
#include "sensor_sim/internal/rig_internal.h"
#include "sensor_sim/internal/streams_internal.h"

namespace sensor_sim {
namespace rig {
namespace internal {

namespace {

using pattern::Format;

constexpr uint32_t kMaxSide = 8192;
constexpr uint64_t kMaxFileBytes = 1 << 20;
constexpr uint32_t kDetectFailed = 0xEFFFFF;

// --- Defaults ----------------------------------------------------------------------------------------

OutputSpec output(const std::string& name, Format format, uint32_t width, uint32_t height) {
    OutputSpec o;
    o.name = name;
    o.format = format;
    o.width = width;
    o.height = height;
    return o;
}

// The name the vehicle publishes for this stream output, or "".
std::string defaultName(uint32_t streamId, uint32_t out) {
    static const streams::internal::StreamTable table = streams::internal::defaultStreamTable();
    auto it = table.find(streamId);
    if (it == table.end()) return "";
    for (const auto& p : it->second) {
        if (p.output == out) return p.name;
    }
    return "";
}

// --- Reading TOML ------------------------------------------------------------------------------------

struct ParseError {
    std::string message;
};

const char* typeName(toml::node_type t) {
    switch (t) {
        case toml::node_type::table:
            return "a table";
        case toml::node_type::array:
            return "an array";
        case toml::node_type::string:
            return "a string";
        case toml::node_type::integer:
            return "an integer";
        case toml::node_type::floating_point:
            return "a number";
        case toml::node_type::boolean:
            return "a boolean";
        case toml::node_type::date:
        case toml::node_type::time:
        case toml::node_type::date_time:
            return "a date or time";
        default:
            return "nothing";
    }
}

class Context {
public:
    explicit Context(std::string source) : m_source(std::move(source)) {}
    [[noreturn]] void fail(const toml::source_region& where, const std::string& problem) const {
        std::string msg = m_source;
        if (where.begin)
            msg += ":" + std::to_string(where.begin.line) + ":" + std::to_string(where.begin.column);
        throw ParseError{msg + ": " + problem};
    }

private:
    std::string m_source;
};

// One table and the keys it may hold. Keys are checked first, so that a misspelt key is reported as
// such rather than as the missing key it was meant to be.
class Fields {
public:
    Fields(const Context& ctx, const toml::table& table, std::string what, std::vector<std::string> allowed)
        : m_ctx(ctx), m_table(table), m_what(std::move(what)) {
        for (auto&& [key, value] : m_table) {
            const std::string k(key.str());
            if (std::find(allowed.begin(), allowed.end(), k) != allowed.end()) continue;
            std::string known;
            for (const std::string& a : allowed) known += (known.empty() ? "" : ", ") + a;
            m_ctx.fail(key.source(), "unknown key '" + k + "' in " + m_what + " (known: " + known + ")");
        }
    }

    const toml::table& table() const { return m_table; }
    [[noreturn]] void fail(const toml::node& node, const std::string& problem) const {
        m_ctx.fail(node.source(), problem);
    }
    [[noreturn]] void failHere(const std::string& problem) const { m_ctx.fail(m_table.source(), problem); }
    // Refuses keys outside `keys` that are present, saying they do not apply to `what`.
    void only(const std::vector<std::string>& keys, const std::string& what) const {
        for (auto&& [key, value] : m_table) {
            const std::string k(key.str());
            if (std::find(keys.begin(), keys.end(), k) == keys.end())
                m_ctx.fail(key.source(), "'" + k + "' does not apply to " + what);
        }
    }

    const toml::node* find(const char* key) const { return m_table.get(key); }

    std::optional<int64_t> integer(const char* key, int64_t lo, int64_t hi) {
        const toml::node* n = find(key);
        if (n == nullptr) return std::nullopt;
        if (!n->is_integer())
            fail(*n, "'" + std::string(key) + "' must be an integer, not " + typeName(n->type()));
        const int64_t v = n->as_integer()->get();
        if (v < lo || v > hi) {
            fail(*n, "'" + std::string(key) + "' = " + std::to_string(v) + " is out of range " +
                         std::to_string(lo) + ".." + std::to_string(hi));
        }
        return v;
    }
    std::optional<uint32_t> u32(const char* key, int64_t lo, int64_t hi) {
        auto v = integer(key, lo, hi);
        return v ? std::optional<uint32_t>(static_cast<uint32_t>(*v)) : std::nullopt;
    }
    std::optional<double> number(const char* key, double lo, double hi) {
        const toml::node* n = find(key);
        if (n == nullptr) return std::nullopt;
        if (!n->is_number())
            fail(*n, "'" + std::string(key) + "' must be a number, not " + typeName(n->type()));
        const double v =
            n->is_integer() ? static_cast<double>(n->as_integer()->get()) : n->as_floating_point()->get();
        if (!(v >= lo && v <= hi)) {
            std::ostringstream os;
            os << "'" << key << "' = " << v << " is out of range " << lo << ".." << hi;
            fail(*n, os.str());
        }
        return v;
    }
    std::optional<bool> boolean(const char* key) {
        const toml::node* n = find(key);
        if (n == nullptr) return std::nullopt;
        if (!n->is_boolean())
            fail(*n, "'" + std::string(key) + "' must be true or false, not " + typeName(n->type()));
        return n->as_boolean()->get();
    }
    std::optional<std::string> string(const char* key) {
        const toml::node* n = find(key);
        if (n == nullptr) return std::nullopt;
        if (!n->is_string())
            fail(*n, "'" + std::string(key) + "' must be a string, not " + typeName(n->type()));
        return n->as_string()->get();
    }
    // An array of small integers (bytes).
    std::optional<std::vector<uint8_t>> bytes(const char* key, size_t minCount, size_t maxCount) {
        const toml::node* n = find(key);
        if (n == nullptr) return std::nullopt;
        const toml::array* a = n->as_array();
        if (a == nullptr)
            fail(*n, "'" + std::string(key) + "' must be an array of bytes, not " + typeName(n->type()));
        if (a->size() < minCount || a->size() > maxCount) {
            fail(*n,
                 "'" + std::string(key) + "' must hold " +
                     (minCount == maxCount ? std::to_string(minCount)
                                           : std::to_string(minCount) + " to " + std::to_string(maxCount)) +
                     " values, not " + std::to_string(a->size()));
        }
        std::vector<uint8_t> out;
        for (const toml::node& e : *a) {
            if (!e.is_integer() || e.as_integer()->get() < 0 || e.as_integer()->get() > 255)
                fail(e, "'" + std::string(key) + "' must hold integers 0..255");
            out.push_back(static_cast<uint8_t>(e.as_integer()->get()));
        }
        return out;
    }
    const toml::table* subtable(const char* key) {
        const toml::node* n = find(key);
        if (n == nullptr) return nullptr;
        if (!n->is_table())
            fail(*n, "'" + std::string(key) + "' must be a table, not " + typeName(n->type()));
        return n->as_table();
    }
    // An array of tables ([[key]] sections), possibly empty.
    std::vector<const toml::table*> tables(const char* key) {
        const toml::node* n = find(key);
        std::vector<const toml::table*> out;
        if (n == nullptr) return out;
        const toml::array* a = n->as_array();
        if (a == nullptr || !a->is_array_of_tables())
            fail(*n, "'" + std::string(key) + "' must be written as [[" + key + "]] sections");
        for (const toml::node& e : *a) out.push_back(e.as_table());
        return out;
    }

private:
    const Context& m_ctx;
    const toml::table& m_table;
    std::string m_what;
};

// The toml++ of Debian 12 (3.3.0) reaches an unreachable branch, undefined behaviour, when it asks
// whether a character of U+00A1..U+0499, U+2C5E..U+3057 (but U+3000) or U+FB26..U+FEFE is whitespace.
// Such characters are refused with their place before the text reaches it; rig files are ASCII in
// practice.
void refuseMishandledCharacters(const std::string& text, const std::string& source) {
    uint32_t line = 1, column = 1;
    for (size_t i = 0; i < text.size(); ++column) {
        const auto lead = static_cast<unsigned char>(text[i]);
        // Only the two- and three-byte forms can encode the ranges; other bytes are left to toml++.
        const size_t length = (lead >> 5) == 0x6 ? 2 : (lead >> 4) == 0xE ? 3 : 1;
        uint32_t cp = length == 2 ? (lead & 0x1Fu) : length == 3 ? (lead & 0x0Fu) : 0;
        for (size_t k = 1; k < length && i + k < text.size(); ++k)
            cp = (cp << 6) | (static_cast<unsigned char>(text[i + k]) & 0x3Fu);
        if ((cp >= 0xA1 && cp <= 0x499) || (cp >= 0x2C5E && cp <= 0x3057 && cp != 0x3000) ||
            (cp >= 0xFB26 && cp <= 0xFEFE)) {
            char code[16];
            std::snprintf(code, sizeof(code), "U+%04X", static_cast<unsigned>(cp));
            throw ParseError{source + ":" + std::to_string(line) + ":" + std::to_string(column) + ": character " +
                             code + " is not supported in rig and scenario files"};
        }
        if (lead == '\n') {
            ++line;
            column = 0;
        }
        i += length;
    }
}

toml::table parseToml(const std::string& text, const std::string& source) {
    refuseMishandledCharacters(text, source);
    toml::parse_result result = toml::parse(text, source);
    if (!result) {
        const toml::parse_error& e = result.error();
        Context(source).fail(e.source(), "not valid TOML: " + std::string(e.description()));
    }
    return std::move(result).table();
}

int lineOf(const toml::node& n) {
    return static_cast<int>(n.source().begin.line);
}

std::string joinPath(const std::string& dir, const std::string& path) {
    if (path.empty() || path[0] == '/' || dir.empty()) return path;
    return dir.back() == '/' ? dir + path : dir + "/" + path;
}

// --- Rig sections -------------------------------------------------------------------------------------

void readRigSection(Fields& f, Rig& rig, uint32_t* poolSize) {
    if (auto v = f.u32("fifo_depth", 1, 64)) rig.fifoDepth = *v;
    if (auto v = f.u32("connect_delay_ms", 0, 60000)) rig.connectDelayMs = *v;
    if (auto v = f.u32("stats_frames", 1, 1024)) rig.statsFrames = *v;
    if (auto v = f.integer("seed", 0, std::numeric_limits<int64_t>::max()))
        rig.seed = static_cast<uint64_t>(*v);
    if (auto v = f.u32("pool_size", 1, kMaxPool)) *poolSize = *v;
    if (auto v = f.u32("detect_answer", 0, 0xFFFFFFFFLL)) rig.detectAnswer = *v;
}

void readSensor(Fields& f, Rig& rig, std::map<uint32_t, int>& seen) {
    auto id = f.u32("id", 0, camera::kSensorCount - 1);
    if (!id) f.failHere("[[sensor]] needs an 'id' (0.." + std::to_string(camera::kSensorCount - 1) + ")");
    if (seen.count(*id) != 0) {
        f.failHere("sensor " + std::to_string(*id) + " is listed twice (first at line " +
                   std::to_string(seen[*id]) + ")");
    }
    seen[*id] = lineOf(f.table());
    camera::SensorState s = camera::internal::defaultSensor(*id);
    if (auto v = f.boolean("present")) s.present = *v;
    if (auto v = f.u32("type_code", 0, 255)) s.typeCode = static_cast<uint8_t>(*v);
    if (auto v = f.boolean("type_present")) s.typePresent = *v;
    if (auto v = f.bytes("info", 6, 6)) std::copy(v->begin(), v->end(), s.info.begin());
    if (auto v = f.bytes("version0", 0, 64)) s.version0 = *v;
    if (auto v = f.bytes("version1", 0, 64)) s.version1 = *v;
    if (auto v = f.boolean("linked")) s.linked = *v;
    if (auto v = f.boolean("video")) s.video = *v;
    if (auto v = f.u32("state", 0, 255)) s.stateByte = static_cast<uint8_t>(*v);
    rig.sensors[*id] = s;
}

OutputSpec readOutput(Fields& f, uint32_t streamId, uint32_t out, uint32_t poolSize,
                      const std::string& baseDir) {
    OutputSpec o;
    o.poolSize = poolSize;
    const std::string section = out == kProcessed ? "processed" : "capture";
    o.name = f.string("name").value_or(defaultName(streamId, out));
    if (o.name.empty()) {
        f.failHere("stream " + std::to_string(streamId) + " has no " + section +
                   " output on the vehicle; give this one a 'name'");
    }
    if (streams::internal::outputOfName(o.name) != out) {
        f.failHere("name '" + o.name + "' does not fit the " + section +
                   " output (processed names end in \"-isp0\", "
                   "capture names do not)");
    }
    const toml::node* replayNode = f.find("replay");
    const auto format = f.string("format");
    const auto width = f.u32("width", 1, kMaxSide);
    const auto height = f.u32("height", 1, kMaxSide);
    if (replayNode != nullptr) {
        auto path = f.string("replay");
        for (const char* k : {"format", "width", "height"}) {
            if (const toml::node* n = f.table().get(k))
                f.fail(*n, "'" + std::string(k) +
                               "' cannot be given with 'replay': a replayed output takes its "
                               "format and size from the dump file's name");
        }
        std::string error;
        o.replay = replay::Source::open(joinPath(baseDir, *path), &error);
        if (!o.replay) f.fail(*replayNode, error);
        o.format = o.replay->name().format;
        o.width = o.replay->name().width;
        o.height = o.replay->name().height;
    } else {
        if (!format)
            f.failHere("[stream." + section + "] needs a 'format' (yuv420, bayer16, grey8 or grey16)");
        if (!pattern::formatFromName(*format, &o.format)) {
            f.fail(*f.table().get("format"),
                   "unknown format '" + *format + "' (known: yuv420, bayer16, grey8, grey16)");
        }
        if (!width || !height) f.failHere("[stream." + section + "] needs a 'width' and a 'height'");
        o.width = *width;
        o.height = *height;
        if (pattern::needsEvenSize(o.format) && (o.width % 2 != 0 || o.height % 2 != 0)) {
            f.failHere(std::string(pattern::formatName(o.format)) + " needs an even width and height, not " +
                       std::to_string(o.width) + "x" + std::to_string(o.height));
        }
    }
    if (auto v = f.u32("pitch_padding", 0, 4096)) o.pitchPadding = *v;
    if (auto v = f.u32("pool_size", 1, kMaxPool)) o.poolSize = *v;
    if (auto v = f.number("offset_ms", -1000, 1000)) o.offsetMs = *v;
    if (auto v = f.number("jitter_ms", 0, 1000)) o.jitterMs = *v;
    if (auto v = f.number("drop_rate", 0, 1)) o.dropRate = *v;
    return o;
}

void readStream(const Context& ctx, Fields& f, Rig& rig, std::map<uint32_t, int>& seen, uint32_t poolSize,
                const std::string& baseDir) {
    auto id = f.u32("id", 0, camera::kSensorCount - 1);
    if (!id) f.failHere("[[stream]] needs an 'id' (0.." + std::to_string(camera::kSensorCount - 1) + ")");
    if (seen.count(*id) != 0) {
        f.failHere("stream " + std::to_string(*id) + " is listed twice (first at line " +
                   std::to_string(seen[*id]) + ")");
    }
    seen[*id] = lineOf(f.table());
    StreamSpec s;
    if (auto v = f.number("rate_hz", 0.1, 1000)) s.rateHz = *v;
    if (auto v = f.boolean("connect_fails")) s.connectFails = *v;
    const char* names[2] = {"capture", "processed"};
    for (uint32_t out : {kCapture, kProcessed}) {
        if (const toml::table* t = f.subtable(names[out])) {
            Fields of(ctx, *t, std::string("[stream.") + names[out] + "] of stream " + std::to_string(*id),
                      {"name", "format", "width", "height", "pitch_padding", "pool_size", "offset_ms",
                       "jitter_ms", "drop_rate", "replay"});
            s.outputs[out] = readOutput(of, *id, out, poolSize, baseDir);
            const double periodMs = 1000.0 / s.rateHz;
            if (std::fabs(s.outputs[out]->offsetMs) + s.outputs[out]->jitterMs >= periodMs) {
                of.failHere("offset_ms and jitter_ms together must stay below the frame period (" +
                            std::to_string(periodMs) + " ms), or frames would overtake each other");
            }
        }
    }
    if (!s.outputs[0] && !s.outputs[1])
        f.failHere("stream " + std::to_string(*id) +
                   " has neither a [stream.capture] "
                   "nor a [stream.processed] output");
    rig.streams[*id] = std::move(s);
}

// --- Canonical text ------------------------------------------------------------------------------------

std::string number(double v) {
    char buf[64];
    auto res = std::to_chars(buf, buf + sizeof buf, v);
    std::string s(buf, res.ptr);
    if (s.find_first_of(".en") == std::string::npos) s += ".0";
    return s;
}

std::string quoted(const std::string& s) {
    std::string out = "\"";
    for (char c : s) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\u%04x", static_cast<unsigned>(c));
            out += buf;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

std::string list(const std::vector<uint8_t>& bytes) {
    std::string out = "[";
    for (size_t i = 0; i < bytes.size(); ++i) out += (i ? ", " : "") + std::to_string(bytes[i]);
    return out + "]";
}

}  // namespace

// --- Public functions -------------------------------------------------------------------------------------

Rig defaultRig() {
    Rig rig;
    for (uint32_t id = 0; id < camera::kSensorCount; ++id)
        rig.sensors[id] = camera::internal::defaultSensor(id);
    auto stream = [&](uint32_t id, double rate) -> StreamSpec& {
        StreamSpec& s = rig.streams[id];
        s.rateHz = rate;
        return s;
    };
    for (uint32_t id = 0; id < 8; ++id) {
        OutputSpec o = output(defaultName(id, kProcessed), Format::Yuv420, 1920, 1080);
        o.jitterMs = 0.5;
        stream(id, 30).outputs[kProcessed] = o;
    }
    for (uint32_t id : {2u, 3u}) {
        // The raw capture of the same exposure normally arrives a few milliseconds before its processed
        // frame.
        OutputSpec o = output(defaultName(id, kCapture), Format::Bayer16, 1920, 1080);
        o.offsetMs = -3;
        o.jitterMs = 1;
        o.dropRate = 0.001;
        rig.streams[id].outputs[kCapture] = o;
    }
    for (uint32_t id = 8; id < 12; ++id) {
        OutputSpec o = output(defaultName(id, kCapture), Format::Yuv420, 1280, 800);
        o.jitterMs = 0.5;
        stream(id, 30).outputs[kCapture] = o;
    }
    for (uint32_t id : {12u, 13u, 16u, 17u, 18u, 19u}) {
        OutputSpec o = output(defaultName(id, kCapture), Format::Grey8, 1024, 64);
        o.jitterMs = 1;
        stream(id, 20).outputs[kCapture] = o;
    }
    for (uint32_t id : {14u, 20u, 21u}) {
        OutputSpec o = output(defaultName(id, kCapture), Format::Grey16, 1800, 32);
        o.jitterMs = 1;
        stream(id, 10).outputs[kCapture] = o;
    }
    return rig;
}

std::string parseRig(const std::string& text, const std::string& source, const std::string& baseDir,
                     Rig* out) {
    try {
        const Context ctx(source);
        const toml::table root = parseToml(text, source);
        Fields top(ctx, root, "the rig file", {"rig", "sensor", "stream", "replay"});
        Rig rig;
        rig.source = source;
        for (uint32_t id = 0; id < camera::kSensorCount; ++id) {
            rig.sensors[id] = camera::internal::defaultSensor(id);
            rig.sensors[id].present = false;
        }
        uint32_t poolSize = 9;
        if (const toml::table* t = top.subtable("rig")) {
            Fields f(ctx, *t, "[rig]",
                     {"base", "fifo_depth", "connect_delay_ms", "stats_frames", "seed", "pool_size",
                      "detect_answer"});
            if (auto base = f.string("base")) {
                if (*base == "default") {
                    rig = defaultRig();
                    rig.source = source;
                } else if (*base != "empty") {
                    f.fail(*t->get("base"), "unknown base '" + *base + "' (known: default, empty)");
                }
            }
            readRigSection(f, rig, &poolSize);
        }
        std::map<uint32_t, int> sensorsSeen, streamsSeen;
        for (const toml::table* t : top.tables("sensor")) {
            Fields f(ctx, *t, "[[sensor]]",
                     {"id", "present", "type_code", "type_present", "info", "version0", "version1", "linked",
                      "video", "state"});
            readSensor(f, rig, sensorsSeen);
        }
        for (const toml::table* t : top.tables("stream")) {
            Fields f(ctx, *t, "[[stream]]", {"id", "rate_hz", "connect_fails", "capture", "processed"});
            readStream(ctx, f, rig, streamsSeen, poolSize, baseDir);
        }
        // A stream implies its sensor, unless a [[sensor]] section says otherwise.
        for (const auto& [id, line] : streamsSeen) {
            if (sensorsSeen.count(id) == 0) rig.sensors[id].present = true;
        }
        if (const toml::table* t = top.subtable("replay")) {
            Fields f(ctx, *t, "[replay]", {"recording", "rate", "loop", "missing"});
            const auto path = f.string("recording");
            if (!path) f.failHere("[replay] needs a 'recording' (an MCAP file of sensorctl record)");
            const double rate = f.number("rate", 0.01, 100).value_or(1.0);
            const bool loop = f.boolean("loop").value_or(false);
            const std::string missing = f.string("missing").value_or("pattern");
            if (missing != "pattern" && missing != "absent")
                f.fail(*t->get("missing"), "unknown 'missing' value '" + missing + "' (known: pattern, absent)");
            std::string error;
            auto recording = replay::Recording::open(joinPath(baseDir, *path), &error);
            if (!recording) f.fail(*t->get("recording"), error);
            error = applyRecording(rig, recording, rate, loop, missing == "absent");
            if (!error.empty()) f.fail(*t->get("recording"), error);
        }
        *out = std::move(rig);
        return "";
    } catch (const ParseError& e) {
        return e.message;
    }
}

std::string applyRecording(Rig& rig, std::shared_ptr<const replay::Recording> recording, double rate, bool loop,
                           bool othersAbsent) {
    for (uint32_t id = 0; id < camera::kSensorCount; ++id) {
        const replay::Recording::Track* tracks[2] = {recording->track(id, kCapture), recording->track(id, kProcessed)};
        if (tracks[0] == nullptr && tracks[1] == nullptr) {
            if (othersAbsent) {
                rig.streams.erase(id);
                rig.sensors[id].present = false;
            }
            continue;
        }
        if (id == 15) return "the recording holds frames of sensor 15, which has no stream";
        StreamSpec& s = rig.streams[id];
        rig.sensors[id].present = true;
        for (uint32_t out : {kCapture, kProcessed}) {
            const replay::Recording::Track* t = tracks[out];
            if (t == nullptr) {
                s.outputs[out].reset();
                continue;
            }
            const std::string name = defaultName(id, out);
            if (name.empty())
                return "the recording holds " + std::string(out == kCapture ? "raw" : "processed") +
                       " frames of sensor " + std::to_string(id) + ", which has no such output";
            OutputSpec o = s.outputs[out].value_or(OutputSpec{});
            if (o.name.empty()) o.name = name;
            o.format = t->format;
            o.width = t->width;
            o.height = t->height;
            o.replay.reset();
            o.offsetMs = 0;
            o.jitterMs = 0;
            o.dropRate = 0;
            s.outputs[out] = o;
        }
    }
    rig.recording = std::move(recording);
    rig.replayRate = rate;
    rig.replayLoop = loop;
    rig.replayOthersAbsent = othersAbsent;
    return "";
}

std::string canonicalText(const Rig& rig) {
    std::ostringstream os;
    os << "[rig]\n"
       << "fifo_depth = " << rig.fifoDepth << "\n"
       << "connect_delay_ms = " << rig.connectDelayMs << "\n"
       << "stats_frames = " << rig.statsFrames << "\n"
       << "seed = " << rig.seed << "\n";
    if (rig.detectAnswer) os << "detect_answer = " << *rig.detectAnswer << "\n";
    if (rig.recording) {
        os << "\n[replay]\nrecording = " << quoted(rig.recording->path()) << "\nrate = " << number(rig.replayRate)
           << "\nloop = " << (rig.replayLoop ? "true" : "false")
           << "\nmissing = " << (rig.replayOthersAbsent ? "\"absent\"" : "\"pattern\"") << "\n";
    }
    for (uint32_t id = 0; id < camera::kSensorCount; ++id) {
        const camera::SensorState& s = rig.sensors[id];
        os << "\n[[sensor]]\nid = " << id << "\npresent = " << (s.present ? "true" : "false")
           << "\ntype_code = " << unsigned(s.typeCode)
           << "\ntype_present = " << (s.typePresent ? "true" : "false")
           << "\ninfo = " << list({s.info.begin(), s.info.end()}) << "\nversion0 = " << list(s.version0)
           << "\nversion1 = " << list(s.version1) << "\nlinked = " << (s.linked ? "true" : "false")
           << "\nvideo = " << (s.video ? "true" : "false") << "\nstate = " << unsigned(s.stateByte) << "\n";
    }
    const char* names[2] = {"capture", "processed"};
    for (const auto& [id, s] : rig.streams) {
        os << "\n[[stream]]\nid = " << id << "\nrate_hz = " << number(s.rateHz)
           << "\nconnect_fails = " << (s.connectFails ? "true" : "false") << "\n";
        for (uint32_t out : {kCapture, kProcessed}) {
            if (!s.outputs[out]) continue;
            const OutputSpec& o = *s.outputs[out];
            os << "[stream." << names[out] << "]\nname = " << quoted(o.name) << "\n";
            if (o.replay) {
                os << "replay = " << quoted(o.replay->path()) << "\n";
            } else {
                os << "format = \"" << pattern::formatName(o.format) << "\"\nwidth = " << o.width
                   << "\nheight = " << o.height << "\n";
            }
            os << "pitch_padding = " << o.pitchPadding << "\npool_size = " << o.poolSize
               << "\noffset_ms = " << number(o.offsetMs) << "\njitter_ms = " << number(o.jitterMs)
               << "\ndrop_rate = " << number(o.dropRate) << "\n";
        }
    }
    return os.str();
}

std::string parseScenario(const std::string& text, const std::string& source, Scenario* out) {
    try {
        const Context ctx(source);
        const toml::table root = parseToml(text, source);
        Fields top(ctx, root, "the scenario file", {"scenario", "event"});
        Scenario sc;
        sc.source = source;
        if (const toml::table* t = top.subtable("scenario")) {
            Fields f(ctx, *t, "[scenario]", {"clock"});
            if (auto clock = f.string("clock")) {
                if (*clock == "process") {
                    sc.processClock = true;
                } else if (*clock != "stream") {
                    f.fail(*t->get("clock"), "unknown clock '" + *clock + "' (known: stream, process)");
                }
            }
        }
        for (const toml::table* t : top.tables("event")) {
            Fields f(ctx, *t, "[[event]]",
                     {"kind", "at_s", "for_s", "sensor", "stream", "call", "status", "calls", "answer"});
            Event e;
            const auto kind = f.string("kind");
            if (!kind)
                f.failHere("[[event]] needs a 'kind' (sensor_lost, connect_fail, call_fail, detect_fail)");
            auto at = f.number("at_s", 0, 1e6);
            if (!at) f.failHere("[[event]] needs 'at_s', the seconds after the clock starts");
            e.atS = *at;
            e.forS = f.number("for_s", 0.001, 1e6);
            if (*kind == "sensor_lost") {
                e.kind = EventKind::SensorLost;
                f.only({"kind", "at_s", "for_s", "sensor"}, "a sensor_lost event");
                e.sensor = f.u32("sensor", 0, camera::kSensorCount - 1);
                if (!e.sensor) f.failHere("a sensor_lost event needs a 'sensor'");
            } else if (*kind == "connect_fail") {
                e.kind = EventKind::ConnectFail;
                f.only({"kind", "at_s", "for_s", "stream"}, "a connect_fail event");
                auto stream = f.u32("stream", 0, camera::kSensorCount - 1);
                if (!stream) f.failHere("a connect_fail event needs a 'stream'");
                e.stream = *stream;
            } else if (*kind == "call_fail") {
                e.kind = EventKind::CallFail;
                f.only({"kind", "at_s", "for_s", "call", "sensor", "status", "calls"}, "a call_fail event");
                const auto call = f.string("call");
                if (!call)
                    f.failHere("a call_fail event needs a 'call' (for example \"readSensorRegUint16\")");
                if (!camera::internal::faultableCall(*call)) {
                    f.fail(*t->get("call"),
                           "'" + *call +
                               "' cannot be failed (known: readSensorRegUint8, "
                               "writeSensorRegUint8, readSensorRegUint16, writeSensorRegUint16, "
                               "readSensorI2C, writeSensorI2C, getSensorInfo, getSensorVerInfo)");
                }
                e.call = *call;
                e.sensor = f.u32("sensor", 0, camera::kSensorCount - 1);
                e.status = f.u32("status", 1, 0xFFFFFFFFLL).value_or(camera::internal::kStatusLinkError);
                if ((e.status & 0xFFFF) == 0) {
                    f.fail(*t->get("status"),
                           "status " + std::to_string(e.status) +
                               " has zero low 16 bits: the client would read it as success");
                }
                if (auto calls = f.integer("calls", 1, 1000000)) e.calls = static_cast<int>(*calls);
            } else if (*kind == "detect_fail") {
                e.kind = EventKind::DetectFail;
                f.only({"kind", "at_s", "for_s", "answer"}, "a detect_fail event");
                e.status = f.u32("answer", 0, 0xFFFFFFFFLL).value_or(kDetectFailed);
            } else {
                f.fail(*t->get("kind"), "unknown kind '" + *kind +
                                            "' (known: sensor_lost, connect_fail, call_fail, detect_fail)");
            }
            sc.events.push_back(e);
        }
        *out = std::move(sc);
        return "";
    } catch (const ParseError& e) {
        return e.message;
    }
}

bool readFile(const std::string& path, std::string* text, std::string* error) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) {
        *error = path + ": cannot open: " + std::strerror(errno);
        return false;
    }
    if (!S_ISREG(st.st_mode)) {
        *error = path + ": not a regular file";
        return false;
    }
    if (static_cast<uint64_t>(st.st_size) > kMaxFileBytes) {
        *error = path + ": " + std::to_string(st.st_size) + " bytes is too large for a rig or scenario file";
        return false;
    }
    std::ifstream in(path, std::ios::binary);
    std::ostringstream os;
    if (!(in && os << in.rdbuf()) && st.st_size != 0) {
        *error = path + ": cannot read: " + std::strerror(errno);
        return false;
    }
    *text = os.str();
    return true;
}

}  // namespace internal
}  // namespace rig
}  // namespace sensor_sim
