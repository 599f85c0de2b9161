// The transport of sensor-simd's messages: the control page shared by the service and a consumer, and
// the client's socket channel that passes shared-memory descriptors beside the bytes.
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

void putAnswer(ControlPage& page, const msg::FrameAnswer& answer) {
    const std::vector<uint8_t> body = codec::encodeBody(answer);
    std::memcpy(page.answer, body.data(), std::min(body.size(), sizeof page.answer));
}

bool takeAnswer(const ControlPage& page, msg::FrameAnswer* out) {
    static const size_t kBytes = codec::encodeBody(msg::FrameAnswer{}).size();
    static_assert(sizeof page.answer >= 4 + 8 + 2 + 4 + 4 + 8 + 9 * 8, "a frame's answer fits the page");
    return codec::decodeBody(page.answer, kBytes, out);
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

bool Channel::sendBytes(const std::vector<uint8_t>& bytes, Clock::time_point deadline) {
    size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t n = ::send(m_fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
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

Channel::Result Channel::receive(msg::Answer* out, Clock::time_point deadline) {
    for (;;) {
        size_t used = 0;
        switch (msg::Answers::decode(m_in.data(), m_in.size(), out, &used)) {
            case codec::Decoded::Complete:
                m_in.erase(m_in.begin(), m_in.begin() + static_cast<std::ptrdiff_t>(used));
                return Result::Received;
            case codec::Decoded::Malformed:
                return Result::Closed;
            case codec::Decoded::Incomplete:
                break;
        }
        if (!await(m_fd, POLLIN, deadline)) return Result::TimedOut;
        uint8_t buffer[64 * 1024];
        std::vector<int> fds;
        bool truncated = false;
        const ssize_t n = receiveWithFds(m_fd, buffer, sizeof buffer, &fds, &truncated);
        m_fds.insert(m_fds.end(), fds.begin(), fds.end());
        if (n < 0 && (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK)) continue;
        if (n <= 0 || truncated) return Result::Closed;
        m_in.insert(m_in.end(), buffer, buffer + n);
    }
}

int Channel::takeFd() {
    if (m_fds.empty()) return -1;
    const int fd = m_fds.front();
    m_fds.pop_front();
    return fd;
}

ssize_t sendWithFd(int fd, const uint8_t* data, size_t size, int passFd) {
    iovec iov{const_cast<uint8_t*>(data), size};
    msghdr m{};
    m.msg_iov = &iov;
    m.msg_iovlen = 1;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    if (passFd >= 0) {
        m.msg_control = control;
        m.msg_controllen = sizeof control;
        cmsghdr* c = CMSG_FIRSTHDR(&m);
        c->cmsg_level = SOL_SOCKET;
        c->cmsg_type = SCM_RIGHTS;
        c->cmsg_len = CMSG_LEN(sizeof(int));
        std::memcpy(CMSG_DATA(c), &passFd, sizeof(int));
    }
    return ::sendmsg(fd, &m, MSG_NOSIGNAL | MSG_DONTWAIT);
}

ssize_t receiveWithFds(int fd, uint8_t* data, size_t size, std::vector<int>* fds, bool* truncated) {
    iovec iov{data, size};
    alignas(cmsghdr) char control[CMSG_SPACE(16 * sizeof(int))];
    msghdr m{};
    m.msg_iov = &iov;
    m.msg_iovlen = 1;
    m.msg_control = control;
    m.msg_controllen = sizeof control;
    const ssize_t n = ::recvmsg(fd, &m, MSG_CMSG_CLOEXEC | MSG_DONTWAIT);
    if (n < 0) return n;
    *truncated = (m.msg_flags & MSG_CTRUNC) != 0;
    for (cmsghdr* c = CMSG_FIRSTHDR(&m); c != nullptr; c = CMSG_NXTHDR(&m, c)) {
        if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS) continue;
        const size_t count = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t i = 0; i < count; ++i) {
            int passed;
            std::memcpy(&passed, CMSG_DATA(c) + i * sizeof(int), sizeof passed);
            fds->push_back(passed);
        }
    }
    return n;
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
