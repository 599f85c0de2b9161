// Messages between sensor-simd and its consumers: the strict decoder, the encoders of the structured
// tails, and the socket channel that passes shared-memory descriptors beside the bytes.
#include "sensor_sim/internal/wire.h"

#include <fcntl.h>
#include <linux/futex.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

namespace sensor_sim {
namespace wire {
namespace {

struct Schema {
    uint16_t words;
    uint32_t maxTail;
};

constexpr uint32_t kMaxName = 255;
constexpr uint64_t kMaxConfigs = 64;
constexpr size_t kConfigFixed = 6 * sizeof(uint32_t);
constexpr size_t kPlaneFields = 9;
constexpr size_t kBufferFixed = 5;
constexpr size_t kMaxPlanes = 3;
constexpr uint64_t kMaxStateRecords = 1024;
constexpr uint64_t kMaxBufferBytes = 128ull << 20;  // twice an 8K frame of 16-bit raw pixels

Schema schemaOf(Type type) {
    switch (type) {
        case Type::Hello:
            return {2, 0};
        case Type::Attach:
            return {1, 0};
        case Type::InitConsumer:
            return {1, 2 * kMaxName + 1};
        case Type::RegStream:
            return {3, static_cast<uint32_t>(kMaxConfigs * (kConfigFixed + kMaxName))};
        case Type::InitDone:
        case Type::GetState:
        case Type::Deinit:
        case Type::ServiceState:
            return {0, 0};
        case Type::GetFrame:
            return {3, 0};
        case Type::Release:
            return {4, 0};
        case Type::Camera:
            return {5, 0xFFFF};
        case Type::Stats:
            return {2, 0};
        case Type::Welcome:
            return {1, 0};
        case Type::Status:
            return {2, 0};
        case Type::Buffer:
            return {kBufferFixed + kMaxPlanes * kPlaneFields, 0};
        case Type::Frame:
            return {15, 0};
        case Type::CameraAnswer:
            return {7, 0xFFFF};
        case Type::StatsAnswer:
            return {2, 32 * 4 + stats::kRegions * stats::kBlockBytes};
        case Type::ServiceStateAnswer:
            return {2, 64 * 1024};
        case Type::OpenPage:
            return {0, 0};
        case Type::MapBuffer:
        case Type::Page:
            return {1, 0};
        case Type::Count:
            break;
    }
    return {0, 0};
}

bool fits(uint64_t value, uint64_t max) {
    return value <= max;
}

// Ranges of the fixed words, per type: ids, indices and counts that no honest peer sends.
bool fieldsValid(const Message& m) {
    const auto& w = m.words;
    switch (m.type) {
        case Type::Hello:
            return w[0] == kVersion && fits(w[1], 0x7FFFFFFF);
        case Type::InitConsumer:
            return fits(w[0], 0xFFFF);
        case Type::RegStream:
            return fits(w[0], 0xFFFFFFFF) && w[1] <= 1 && w[2] >= 1 && w[2] <= kMaxConfigs;
        case Type::GetFrame:
            return fits(w[0], 0xFFFFFFFF) && w[1] <= 1 && w[2] <= 1;
        case Type::Release:
            return fits(w[0], 0xFFFFFFFF) && w[1] <= 1 && fits(w[2], 0xFFFF);
        case Type::Camera:
            return w[0] < static_cast<uint64_t>(CameraCall::Count) && fits(w[1], 0xFFFFFFFF) &&
                   fits(w[2], 0xFFFF) && fits(w[4], 0xFFFF) &&
                   (m.tail.empty() || w[0] == static_cast<uint64_t>(CameraCall::WriteI2c));
        case Type::Stats:
            return fits(w[0], 0xFFFF);
        case Type::Welcome:
            return w[0] == kVersion;
        case Type::Buffer:
            return w[2] >= 1 && w[2] <= kMaxPlanes;
        case Type::Frame:
            return fits(w[2], 0xFFFF) && fits(w[4], 0xFFFFFFFF);
        case Type::StatsAnswer:
            return m.tail.empty() || w[0] == 0;
        case Type::ServiceStateAnswer:
            return w[0] <= kMaxStateRecords && w[1] <= kMaxStateRecords;
        case Type::Page:
            return w[0] == kPageBytes;
        default:
            return true;
    }
}

uint64_t loadWord(const uint8_t* p) {
    uint64_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

uint32_t load32(const char* p) {
    uint32_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

void put32(std::string& out, uint32_t v) {
    out.append(reinterpret_cast<const char*>(&v), sizeof v);
}
void put64(std::string& out, uint64_t v) {
    out.append(reinterpret_cast<const char*>(&v), sizeof v);
}

bool take64(const std::string& in, size_t* at, uint64_t* v) {
    if (in.size() - *at < sizeof *v) return false;
    std::memcpy(v, in.data() + *at, sizeof *v);
    *at += sizeof *v;
    return true;
}

bool takeText(const std::string& in, size_t* at, uint64_t len, std::string* out) {
    if (len > kMaxName || in.size() - *at < len) return false;
    out->assign(in, *at, len);
    *at += len;
    return true;
}

}  // namespace

size_t wordCount(Type type) {
    return schemaOf(type).words;
}

Decoded decode(const uint8_t* data, size_t size, Message* out, size_t* used) {
    if (size < kHeaderBytes) return Decoded::Incomplete;
    uint32_t length;
    uint16_t type, words;
    std::memcpy(&length, data, 4);
    std::memcpy(&type, data + 4, 2);
    std::memcpy(&words, data + 6, 2);
    if (type == 0 || type >= static_cast<uint16_t>(Type::Count) || length > kMaxBody)
        return Decoded::Malformed;
    const Schema schema = schemaOf(static_cast<Type>(type));
    if (words != schema.words || length < words * 8u || length - words * 8u > schema.maxTail)
        return Decoded::Malformed;
    if (size - kHeaderBytes < length) return Decoded::Incomplete;
    Message m;
    m.type = static_cast<Type>(type);
    for (size_t i = 0; i < words; ++i) m.words[i] = loadWord(data + kHeaderBytes + i * 8);
    m.tail.assign(reinterpret_cast<const char*>(data) + kHeaderBytes + words * 8u, length - words * 8u);
    if (!fieldsValid(m)) return Decoded::Malformed;
    *out = std::move(m);
    *used = kHeaderBytes + length;
    return Decoded::Complete;
}

std::vector<uint8_t> encode(const Message& message) {
    const uint16_t words = schemaOf(message.type).words;
    const uint32_t length = static_cast<uint32_t>(words * 8u + message.tail.size());
    const uint16_t type = static_cast<uint16_t>(message.type);
    std::vector<uint8_t> out(kHeaderBytes + length);
    std::memcpy(out.data(), &length, 4);
    std::memcpy(out.data() + 4, &type, 2);
    std::memcpy(out.data() + 6, &words, 2);
    std::memcpy(out.data() + kHeaderBytes, message.words.data(), words * 8u);
    std::memcpy(out.data() + kHeaderBytes + words * 8u, message.tail.data(), message.tail.size());
    return out;
}

std::string encodeConfigs(const std::vector<streams::Config>& configs) {
    std::string out;
    for (const auto& c : configs) {
        put32(out, static_cast<uint32_t>(c.name.size()));
        for (uint32_t v : {c.field1, c.field2, c.field3, c.frameTimeout, c.field5}) put32(out, v);
        out += c.name;
    }
    return out;
}

bool decodeConfigs(const std::string& tail, uint64_t count, std::vector<streams::Config>* out) {
    std::vector<streams::Config> configs;
    size_t at = 0;
    for (uint64_t i = 0; i < count; ++i) {
        if (tail.size() - at < kConfigFixed) return false;
        const uint32_t len = load32(tail.data() + at);
        streams::Config c;
        c.field1 = load32(tail.data() + at + 4);
        c.field2 = load32(tail.data() + at + 8);
        c.field3 = load32(tail.data() + at + 12);
        c.frameTimeout = load32(tail.data() + at + 16);
        c.field5 = load32(tail.data() + at + 20);
        at += kConfigFixed;
        if (len == 0 || !takeText(tail, &at, len, &c.name)) return false;
        configs.push_back(std::move(c));
    }
    if (at != tail.size()) return false;
    *out = std::move(configs);
    return true;
}

bool decodeNames(const std::string& tail, std::string* app, std::string* channel) {
    const size_t nul = tail.find('\0');
    if (nul == std::string::npos || nul == 0 || nul > kMaxName) return false;
    const size_t rest = tail.size() - nul - 1;
    if (rest == 0 || rest > kMaxName || tail.find('\0', nul + 1) != std::string::npos) return false;
    *app = tail.substr(0, nul);
    *channel = tail.substr(nul + 1);
    return true;
}

Message describeBuffer(uint64_t id, const Buffer& buffer) {
    Message m;
    m.type = Type::Buffer;
    const BufferSpec& spec = buffer.spec();
    m.words[0] = id;
    m.words[1] = buffer.size();
    m.words[2] = std::min(spec.planes.size(), kMaxPlanes);
    m.words[3] = spec.layout;
    m.words[4] = spec.needSwCacheCoherency ? 1 : 0;
    for (size_t p = 0; p < m.words[2]; ++p) {
        const PlaneSpec& ps = spec.planes[p];
        uint64_t* w = &m.words[kBufferFixed + p * kPlaneFields];
        w[0] = ps.width;
        w[1] = ps.height;
        w[2] = ps.bitsPerPixel;
        w[3] = ps.colorFormat;
        w[4] = ps.pitch;
        w[5] = ps.alignedHeight;
        w[6] = ps.channelCount;
        w[7] = ps.topPadding;
        w[8] = ps.bottomPadding;
    }
    return m;
}

bool bufferSpecOf(const Message& m, BufferSpec* spec) {
    if (m.type != Type::Buffer) return false;
    BufferSpec out;
    out.layout = static_cast<uint32_t>(m.words[3]);
    out.needSwCacheCoherency = m.words[4] != 0;
    uint64_t size = 0;
    for (size_t p = 0; p < m.words[2]; ++p) {
        const uint64_t* w = &m.words[kBufferFixed + p * kPlaneFields];
        // Bounded so that no product below overflows: 64 Ki lines of 1 MiB at most.
        if (w[0] > 65535 || w[1] > 65535 || w[5] > 65535 || w[2] > 64 || w[4] > (1u << 20) || w[6] > 255)
            return false;
        PlaneSpec ps;
        ps.width = static_cast<uint32_t>(w[0]);
        ps.height = static_cast<uint32_t>(w[1]);
        ps.bitsPerPixel = static_cast<uint32_t>(w[2]);
        ps.colorFormat = static_cast<uint32_t>(w[3]);
        ps.pitch = static_cast<uint32_t>(w[4]);
        ps.alignedHeight = static_cast<uint32_t>(w[5]);
        ps.channelCount = static_cast<uint8_t>(w[6]);
        ps.topPadding = w[7];
        ps.bottomPadding = w[8];
        const uint64_t line = uint64_t(ps.width) * ps.bitsPerPixel / 8;
        const uint64_t pitch = std::max<uint64_t>(ps.pitch != 0 ? ps.pitch : (line + 63) / 64 * 64, line);
        if (pitch > (1u << 20)) return false;
        size += pitch * std::max(ps.alignedHeight, ps.height);
        out.planes.push_back(ps);
    }
    if (size != m.words[1] || size == 0 || size > kMaxBufferBytes) return false;
    *spec = std::move(out);
    return true;
}

Message encodeState(const ServiceState& state) {
    Message m;
    m.type = Type::ServiceStateAnswer;
    m.words[0] = state.consumers.size();
    m.words[1] = state.outputs.size();
    for (const auto& c : state.consumers) {
        for (uint64_t v : {c.pid, c.received, c.held, c.refused, uint64_t(c.streams.size()),
                           uint64_t(c.app.size()), uint64_t(c.channel.size())})
            put64(m.tail, v);
        for (uint32_t s : c.streams) put64(m.tail, s);
        m.tail += c.app;
        m.tail += c.channel;
    }
    for (const auto& o : state.outputs) {
        for (uint64_t v : {uint64_t(o.streamId), uint64_t(o.output), o.poolSize, o.inUse, o.poolDrops,
                           o.produced, o.delivered})
            put64(m.tail, v);
    }
    return m;
}

bool decodeState(const Message& m, ServiceState* out) {
    if (m.type != Type::ServiceStateAnswer) return false;
    ServiceState state;
    size_t at = 0;
    for (uint64_t i = 0; i < m.words[0]; ++i) {
        ConsumerState c;
        uint64_t streamCount = 0, appLen = 0, channelLen = 0;
        if (!take64(m.tail, &at, &c.pid) || !take64(m.tail, &at, &c.received) ||
            !take64(m.tail, &at, &c.held) || !take64(m.tail, &at, &c.refused) ||
            !take64(m.tail, &at, &streamCount) || !take64(m.tail, &at, &appLen) ||
            !take64(m.tail, &at, &channelLen) || streamCount > 64)
            return false;
        for (uint64_t s = 0; s < streamCount; ++s) {
            uint64_t id;
            if (!take64(m.tail, &at, &id) || id > 0xFFFFFFFF) return false;
            c.streams.push_back(static_cast<uint32_t>(id));
        }
        if (!takeText(m.tail, &at, appLen, &c.app) || !takeText(m.tail, &at, channelLen, &c.channel))
            return false;
        state.consumers.push_back(std::move(c));
    }
    for (uint64_t i = 0; i < m.words[1]; ++i) {
        OutputState o;
        uint64_t id = 0, output = 0;
        if (!take64(m.tail, &at, &id) || !take64(m.tail, &at, &output) || !take64(m.tail, &at, &o.poolSize) ||
            !take64(m.tail, &at, &o.inUse) || !take64(m.tail, &at, &o.poolDrops) ||
            !take64(m.tail, &at, &o.produced) || !take64(m.tail, &at, &o.delivered) || id > 0xFFFFFFFF ||
            output > 1)
            return false;
        o.streamId = static_cast<uint32_t>(id);
        o.output = static_cast<uint32_t>(output);
        state.outputs.push_back(o);
    }
    if (at != m.tail.size()) return false;
    *out = std::move(state);
    return true;
}

// --- Control page ----------------------------------------------------------------------------------

std::unique_ptr<PageMapping> PageMapping::create(std::string* error) {
    const int fd = ::memfd_create("sensor-sim-page", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (fd < 0) {
        *error = std::string("memfd_create: ") + std::strerror(errno);
        return nullptr;
    }
    // Sealed against shrinking: a client that truncated the page would make the service's next access
    // fault.
    void* map = MAP_FAILED;
    if (::ftruncate(fd, kPageBytes) == 0 &&
        ::fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) == 0)
        map = ::mmap(nullptr, kPageBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (map == MAP_FAILED) {
        *error = std::string("control page: ") + std::strerror(errno);
        ::close(fd);
        return nullptr;
    }
    return std::unique_ptr<PageMapping>(new PageMapping(new (map) ControlPage{}, fd));
}

std::unique_ptr<PageMapping> PageMapping::map(int fd, std::string* error) {
    struct stat st {};
    void* map = MAP_FAILED;
    if (::fstat(fd, &st) == 0 && static_cast<uint64_t>(st.st_size) == kPageBytes)
        map = ::mmap(nullptr, kPageBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ::close(fd);
    if (map == MAP_FAILED) {
        *error = "control page from sensor-simd refused";
        return nullptr;
    }
    return std::unique_ptr<PageMapping>(new PageMapping(static_cast<ControlPage*>(map), -1));
}

PageMapping::~PageMapping() {
    ::munmap(m_page, kPageBytes);
    if (m_fd >= 0) ::close(m_fd);
}

// Shared futexes (not FUTEX_PRIVATE_FLAG): the word lives in memory that two processes map.
void wakePage(ControlPage& page) {
    ::syscall(SYS_futex, reinterpret_cast<uint32_t*>(&page.get), FUTEX_WAKE, 1, nullptr, nullptr, 0);
}

void waitPage(ControlPage& page, uint32_t seen, std::chrono::steady_clock::time_point deadline) {
    const auto left = deadline - std::chrono::steady_clock::now();
    if (left <= std::chrono::steady_clock::duration::zero()) return;
    const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(left).count();
    timespec timeout{static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
    ::syscall(SYS_futex, reinterpret_cast<uint32_t*>(&page.get), FUTEX_WAIT, seen, &timeout, nullptr, 0);
}

int takeReleases(ControlPage& page, uint32_t* tail, std::array<ReleaseEntry, kReleaseSlots>* out) {
    const uint32_t head = page.releaseHead.load(std::memory_order_acquire);
    const uint32_t count = head - *tail;
    if (count > kReleaseSlots) return -1;
    for (uint32_t i = 0; i < count; ++i) {
        uint64_t w[4];
        std::memcpy(w, page.releases[(*tail + i) % kReleaseSlots], sizeof w);
        if (w[0] > 0xFFFFFFFF || w[1] > 1 || w[2] > 0xFFFF) return -1;
        (*out)[i] = ReleaseEntry{static_cast<uint32_t>(w[0]), static_cast<uint32_t>(w[1]),
                                 static_cast<uint16_t>(w[2]), w[3]};
    }
    *tail = head;
    page.releaseTail.store(head, std::memory_order_release);
    return static_cast<int>(count);
}

bool putRelease(ControlPage& page, const ReleaseEntry& entry) {
    const uint32_t head = page.releaseHead.load(std::memory_order_relaxed);
    if (head - page.releaseTail.load(std::memory_order_acquire) >= kReleaseSlots) return false;
    const uint64_t w[4] = {entry.streamId, entry.output, entry.objIndex, entry.counter};
    std::memcpy(page.releases[head % kReleaseSlots], w, sizeof w);
    page.releaseHead.store(head + 1, std::memory_order_release);
    return true;
}

// --- Channel ---------------------------------------------------------------------------------------

namespace {

int msUntil(Channel::Clock::time_point deadline) {
    if (deadline == Channel::Clock::time_point::max()) return -1;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Channel::Clock::now());
    return left.count() <= 0 ? 0 : static_cast<int>(std::min<int64_t>(left.count() + 1, 60000));
}

// Waits for `events` on fd; false when the deadline passed first.
bool await(int fd, short events, Channel::Clock::time_point deadline) {
    for (;;) {
        pollfd p{fd, events, 0};
        const int timeout = msUntil(deadline);
        const int n = ::poll(&p, 1, timeout);
        if (n > 0) return true;
        if (n < 0 && errno == EINTR) continue;
        if (n == 0 && (timeout != 0 || Channel::Clock::now() >= deadline)) return false;
        if (n < 0) return true;  // the next call reports the error
    }
}

}  // namespace

Channel::~Channel() {
    for (int fd : m_fds) ::close(fd);
    if (m_fd >= 0) ::close(m_fd);
}

bool Channel::send(const Message& message, int passFd, Clock::time_point deadline) {
    const std::vector<uint8_t> bytes = encode(message);
    if (deadline == Clock::time_point::max() && m_sendBound.count() > 0)
        deadline = Clock::now() + m_sendBound;
    size_t sent = 0;
    while (sent < bytes.size()) {
        iovec iov{const_cast<uint8_t*>(bytes.data()) + sent, bytes.size() - sent};
        msghdr msg{};
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
        if (passFd >= 0 && sent == 0) {
            msg.msg_control = control;
            msg.msg_controllen = sizeof control;
            cmsghdr* c = CMSG_FIRSTHDR(&msg);
            c->cmsg_level = SOL_SOCKET;
            c->cmsg_type = SCM_RIGHTS;
            c->cmsg_len = CMSG_LEN(sizeof(int));
            std::memcpy(CMSG_DATA(c), &passFd, sizeof(int));
        }
        const ssize_t n = ::sendmsg(m_fd, &msg, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            sent += static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            if (!await(m_fd, POLLOUT, deadline)) return false;
            continue;
        }
        return false;
    }
    return true;
}

Channel::Result Channel::receive(Message* out, Clock::time_point deadline) {
    for (;;) {
        size_t used = 0;
        switch (decode(m_in.data(), m_in.size(), out, &used)) {
            case Decoded::Complete:
                m_in.erase(m_in.begin(), m_in.begin() + static_cast<std::ptrdiff_t>(used));
                return Result::Received;
            case Decoded::Malformed:
                return Result::Closed;
            case Decoded::Incomplete:
                break;
        }
        // Without a deadline the read itself waits (on a blocking socket): one system call per
        // request fewer for the service, whose connections wait without deadlines.
        const bool forever = deadline == Clock::time_point::max();
        if (!forever && !await(m_fd, POLLIN, deadline)) return Result::TimedOut;
        uint8_t buffer[64 * 1024];
        iovec iov{buffer, sizeof buffer};
        alignas(cmsghdr) char control[CMSG_SPACE(4 * sizeof(int))];
        msghdr msg{};
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        msg.msg_control = control;
        msg.msg_controllen = sizeof control;
        const ssize_t n = ::recvmsg(m_fd, &msg, MSG_CMSG_CLOEXEC | (forever ? 0 : MSG_DONTWAIT));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            if (forever) await(m_fd, POLLIN, deadline);  // a non-blocking socket: wait here instead
            continue;
        }
        if (n <= 0) return Result::Closed;
        for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c != nullptr; c = CMSG_NXTHDR(&msg, c)) {
            if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS) continue;
            const size_t count = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
            for (size_t i = 0; i < count; ++i) {
                int fd;
                std::memcpy(&fd, CMSG_DATA(c) + i * sizeof(int), sizeof fd);
                m_fds.push_back(fd);
            }
        }
        if ((msg.msg_flags & MSG_CTRUNC) != 0) return Result::Closed;
        m_in.insert(m_in.end(), buffer, buffer + n);
    }
}

int Channel::takeFd() {
    if (m_fds.empty()) return -1;
    const int fd = m_fds.front();
    m_fds.pop_front();
    return fd;
}

int connectTo(const std::string& path, std::string* error) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof addr.sun_path) {
        *error = path + ": not a usable socket path";
        return -1;
    }
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    // Non-blocking: a service that stopped accepting (a full backlog) must not hold the caller.
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        *error = std::string("socket: ") + std::strerror(errno);
        return -1;
    }
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) {
        *error = path + ": " + std::strerror(errno);
        ::close(fd);
        return -1;
    }
    return fd;
}


}  // namespace wire
}  // namespace sensor_sim
