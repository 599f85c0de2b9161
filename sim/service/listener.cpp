// sensor-simd's listening socket.
#include "listener.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "sensor_sim/internal/wire.h"

namespace sensor_simd {
namespace {

std::string directoryOf(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace

Listener::~Listener() {
    close();
}

std::string Listener::open(const std::string& path) {
    sockaddr_un addr{};
    if (path.empty() || path.size() >= sizeof addr.sun_path) return path + ": socket path too long";
    const std::string dir = directoryOf(path);
    if (::mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) return dir + ": " + std::strerror(errno);
    struct stat st {};
    if (::stat(dir.c_str(), &st) != 0) return dir + ": " + std::strerror(errno);
    // Only the user who runs the service may reach it: the directory must be theirs alone.
    if (!S_ISDIR(st.st_mode) || st.st_uid != ::geteuid() || (st.st_mode & 077) != 0)
        return dir + ": the socket's directory must belong to this user with mode 0700";
    std::string error;
    const int probe = sensor_sim::wire::connectTo(path, &error);
    if (probe >= 0) {
        ::close(probe);
        return path + ": another sensor-simd answers there";
    }
    ::unlink(path.c_str());  // a socket left by a service that died
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return std::string("socket: ") + std::strerror(errno);
    const mode_t mask = ::umask(0177);  // the socket is created 0600, never briefly wider
    const int bound = ::bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr);
    ::umask(mask);
    if (bound != 0 || ::listen(fd, 128) != 0) {
        const std::string why = path + ": " + std::strerror(errno);
        ::close(fd);
        return why;
    }
    m_fd = fd;
    m_path = path;
    m_reserve = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    return "";
}

Listener::Accepted Listener::accept(int* fd, uint64_t* pid) {
    for (;;) {
        const int c = ::accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (c < 0) {
            if (errno == EINTR || errno == ECONNABORTED) continue;
            if (errno != EMFILE && errno != ENFILE && errno != ENOBUFS && errno != ENOMEM) return Accepted::None;
            // The table is full: the reserve makes room to take the newcomer off the queue and close it, so
            // that it learns at once and the listening socket does not stay readable.
            if (m_reserve < 0) return Accepted::Exhausted;
            ::close(m_reserve);
            const int refused = ::accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC);
            if (refused >= 0) ::close(refused);
            m_reserve = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
            return refused >= 0 ? Accepted::Refused : Accepted::Exhausted;
        }
        ucred peer{};
        socklen_t len = sizeof peer;
        if (::getsockopt(c, SOL_SOCKET, SO_PEERCRED, &peer, &len) != 0 || peer.uid != ::geteuid()) {
            ::close(c);
            return Accepted::Refused;
        }
        *fd = c;
        *pid = static_cast<uint64_t>(peer.pid);
        return Accepted::Connection;
    }
}

void Listener::close() {
    if (m_fd >= 0) {
        ::close(m_fd);
        ::unlink(m_path.c_str());
    }
    if (m_reserve >= 0) ::close(m_reserve);
    m_fd = m_reserve = -1;
}

}  // namespace sensor_simd
