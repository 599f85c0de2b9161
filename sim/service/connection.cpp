// A client connection's socket work: strict reads, queued non-blocking writes, descriptors passed and
// never kept.
#include "connection.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace sensor_simd {

namespace msg = sensor_sim::msg;

Connection::~Connection() {
    for (const Outgoing& o : m_out) {
        if (o.fd >= 0) ::close(o.fd);
    }
    ::close(m_fd);
}

Connection::Read Connection::readSome() {
    uint8_t buffer[64 * 1024];
    iovec iov{buffer, sizeof buffer};
    alignas(cmsghdr) char control[CMSG_SPACE(16 * sizeof(int))];
    msghdr m{};
    m.msg_iov = &iov;
    m.msg_iovlen = 1;
    m.msg_control = control;
    m.msg_controllen = sizeof control;
    const ssize_t n = ::recvmsg(m_fd, &m, MSG_CMSG_CLOEXEC | MSG_DONTWAIT);
    bool passed = (m.msg_flags & MSG_CTRUNC) != 0;
    if (n >= 0) {
        for (cmsghdr* c = CMSG_FIRSTHDR(&m); c != nullptr; c = CMSG_NXTHDR(&m, c)) {
            if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS) continue;
            const size_t count = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
            for (size_t i = 0; i < count; ++i) {
                int fd;
                std::memcpy(&fd, CMSG_DATA(c) + i * sizeof(int), sizeof fd);
                ::close(fd);
                passed = true;
            }
        }
    }
    if (n < 0) return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR ? Read::Ok : Read::Closed;
    if (passed) return Read::Broken;
    if (n == 0) return Read::Closed;
    m_in.insert(m_in.end(), buffer, buffer + n);
    return Read::Ok;
}

Connection::Next Connection::next(msg::Request* out) {
    size_t used = 0;
    switch (msg::Requests::decode(m_in.data(), m_in.size(), out, &used)) {
        case sensor_sim::codec::Decoded::Complete:
            m_in.erase(m_in.begin(), m_in.begin() + static_cast<std::ptrdiff_t>(used));
            return Next::Request;
        case sensor_sim::codec::Decoded::Incomplete:
            return Next::None;
        case sensor_sim::codec::Decoded::Malformed:
            break;
    }
    return Next::Broken;
}

bool Connection::queue(std::vector<uint8_t> bytes, int passFd) {
    Outgoing o;
    o.bytes = std::move(bytes);
    if (passFd >= 0) {
        o.fd = ::fcntl(passFd, F_DUPFD_CLOEXEC, 0);
        if (o.fd < 0) return false;
    }
    m_queued += o.bytes.size();
    m_out.push_back(std::move(o));
    if (m_queued > kMaxQueuedBytes) return false;
    return flush();
}

bool Connection::flush() {
    while (!m_out.empty()) {
        Outgoing& o = m_out.front();
        iovec iov{o.bytes.data() + o.at, o.bytes.size() - o.at};
        msghdr m{};
        m.msg_iov = &iov;
        m.msg_iovlen = 1;
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
        if (o.fd >= 0 && o.at == 0) {
            m.msg_control = control;
            m.msg_controllen = sizeof control;
            cmsghdr* c = CMSG_FIRSTHDR(&m);
            c->cmsg_level = SOL_SOCKET;
            c->cmsg_type = SCM_RIGHTS;
            c->cmsg_len = CMSG_LEN(sizeof(int));
            std::memcpy(CMSG_DATA(c), &o.fd, sizeof(int));
        }
        const ssize_t n = ::sendmsg(m_fd, &m, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0) {
            if (errno == EINTR) continue;
            return errno == EAGAIN || errno == EWOULDBLOCK;
        }
        if (o.fd >= 0) {
            ::close(o.fd);  // passed with the first byte
            o.fd = -1;
        }
        o.at += static_cast<size_t>(n);
        if (o.at < o.bytes.size()) continue;
        m_queued -= o.bytes.size();
        m_out.pop_front();
    }
    return true;
}

}  // namespace sensor_simd
