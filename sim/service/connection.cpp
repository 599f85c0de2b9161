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
    std::vector<int> fds;
    bool truncated = false;
    const ssize_t n = sensor_sim::wire::receiveWithFds(m_fd, buffer, sizeof buffer, &fds, &truncated);
    for (int fd : fds) ::close(fd);
    if (n < 0) return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR ? Read::Ok : Read::Closed;
    if (!fds.empty() || truncated) return Read::Broken;
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
        const ssize_t n = sensor_sim::wire::sendWithFd(m_fd, o.bytes.data() + o.at, o.bytes.size() - o.at,
                                                      o.at == 0 ? o.fd : -1);
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
