// sensor-simd's event loop: accepts connections within the limits, reads whole requests, answers each
// from the in-process vehicle through the vehicle interface, and ends a connection that breaks the
// protocol (counted, nothing more). Frames reach consumers through the frame service; the loop's thread
// and the producers' are the only threads, whatever the clients do.
#include "server.h"

#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <deque>
#include <map>
#include <new>

#include "connection.h"
#include "frame_service.h"
#include "listener.h"
#include "registry.h"
#include "sensor_sim/internal/streams_internal.h"
#include "sensor_sim/rig.h"

namespace sensor_simd {

namespace msg = sensor_sim::msg;
namespace model = sensor_sim::streams::internal;

namespace {

// How a request ended for its connection.
enum class Done {
    Ok,
    Violation,  // out of turn or out of range: the connection ends and counts as a protocol error
    Lost,       // the client is gone or stopped reading: the connection ends
};

Done sent(bool ok) {
    return ok ? Done::Ok : Done::Lost;
}

}  // namespace

struct Server::Impl {
    Limits limits;
    Listener listener;
    int epoll = ::epoll_create1(EPOLL_CLOEXEC);
    int wake = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);  // the frame service's producers
    int signals = -1;                                     // signalfd: SIGINT, SIGTERM
    bool stopping = false;
    Clock::time_point listenPausedUntil{};
    bool listening = false;
    std::map<int, std::unique_ptr<Connection>> connections;  // by descriptor
    struct Handshake {
        Clock::time_point deadline;
        Connection* connection;
    };
    std::deque<Handshake> handshakes;  // in accept order, so in deadline order
    Registry registry;
    FrameService frames{wake};

    Impl() {
        watch(wake, EPOLLIN);
        frames.install();
    }
    ~Impl() {
        frames.closePages();
        while (!connections.empty()) close(*connections.begin()->second);
        frames.uninstall();
        if (signals >= 0) ::close(signals);
        ::close(wake);
        ::close(epoll);
    }
    void watch(int fd, uint32_t events) {
        epoll_event ev{};
        ev.events = events;
        ev.data.fd = fd;
        if (::epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &ev) != 0) ::epoll_ctl(epoll, EPOLL_CTL_MOD, fd, &ev);
    }
    void setListening(bool on) {
        if (listener.fd() < 0 || on == listening) return;
        if (on) {
            watch(listener.fd(), EPOLLIN);
        } else {
            ::epoll_ctl(epoll, EPOLL_CTL_DEL, listener.fd(), nullptr);
        }
        listening = on;
    }

    void adopt(int fd, uint64_t pid) {
        Connection* made = nullptr;
        try {
            auto c = std::make_unique<Connection>(fd, pid, Clock::now() + limits.handshake);
            made = c.get();  // from here on the connection owns the descriptor
            connections[fd] = std::move(c);
            handshakes.push_back({made->handshakeDeadline, made});
            watch(fd, EPOLLIN);
        } catch (const std::bad_alloc&) {
            // No memory for the newcomer: it is refused, the others go on.
            outOfMemory();
            ++registry.refusals().connections;
            if (made == nullptr) {
                ::close(fd);
            } else if (connections.count(fd) != 0) {
                close(*made);
            }
        }
    }
    void outOfMemory() {
        static bool said = false;
        if (!said) std::fprintf(stderr, "sensor-simd: out of memory: the clients that need more are dropped\n");
        said = true;
    }

    // Takes a batch of newcomers off the queue; the rest wait for the next turn of the loop, after the
    // requests and hang-ups of those already taken. Accepting until the queue is empty would let a flood
    // of connections fill the descriptor table with clients that have long hung up.
    void acceptSome() {
        constexpr int kAcceptsPerTurn = 32;
        for (int i = 0; i < kAcceptsPerTurn; ++i) {
            int fd = -1;
            uint64_t pid = 0;
            switch (listener.accept(&fd, &pid)) {
                case Listener::Accepted::None:
                    return;
                case Listener::Accepted::Refused:
                    ++registry.refusals().connections;
                    continue;
                case Listener::Accepted::Exhausted:
                    // Not even a descriptor to refuse with: listen again in a moment rather than spin.
                    ++registry.refusals().connections;
                    setListening(false);
                    listenPausedUntil = Clock::now() + std::chrono::milliseconds(100);
                    return;
                case Listener::Accepted::Connection:
                    if (connections.size() >= limits.maxClients) {
                        ::close(fd);
                        ++registry.refusals().connections;
                        continue;
                    }
                    adopt(fd, pid);
                    continue;
            }
        }
    }

    // Ends a connection: it leaves the producers' reach first; the owner of a consumer takes the
    // consumer's other connections with it, and the stream model returns the consumer's frames.
    void close(Connection& c) {
        frames.forget(c);
        const uint64_t consumer = c.owner ? c.consumer : 0;
        const uint64_t pid = c.pid();
        ::epoll_ctl(epoll, EPOLL_CTL_DEL, c.fd(), nullptr);
        handshakes.erase(std::remove_if(handshakes.begin(), handshakes.end(),
                                        [&](const Handshake& h) { return h.connection == &c; }),
                         handshakes.end());
        connections.erase(c.fd());  // closes the descriptor
        if (consumer == 0) return;
        std::vector<Connection*> others = connectionsOf(consumer);
        for (Connection* other : others) close(*other);
        ConsumerRecord* record = registry.find(consumer);
        if (record == nullptr) return;
        size_t held = 0;
        for (const auto& h : sensor_sim::streams::held()) held += h.channel == record->channel ? 1 : 0;
        const std::string app = record->app;
        registry.destroy(consumer);
        if (!app.empty())
            std::fprintf(stderr, "sensor-simd: consumer left: pid %llu, application %s (%zu frames returned)\n",
                         static_cast<unsigned long long>(pid), app.c_str(), held);
    }
    void violation(Connection& c, const char* why) {
        ++registry.refusals().protocolErrors;
        std::fprintf(stderr, "sensor-simd: disconnected pid %llu: %s\n", static_cast<unsigned long long>(c.pid()),
                     why);
        close(c);
    }

    std::vector<Connection*> connectionsOf(uint64_t consumer) {
        std::vector<Connection*> out;
        for (auto& [fd, c] : connections) {
            if (c->consumer == consumer) out.push_back(c.get());
        }
        return out;
    }

    void readable(Connection& c) {
        Connection::Read read = Connection::Read::Closed;
        try {
            read = c.readSome();
        } catch (const std::bad_alloc&) {
            outOfMemory();
        }
        switch (read) {
            case Connection::Read::Closed:
                close(c);
                return;
            case Connection::Read::Broken:
                violation(c, "it passed descriptors");
                return;
            case Connection::Read::Ok:
                break;
        }
        for (;;) {
            msg::Request request;
            Connection::Next next = Connection::Next::Broken;
            try {
                next = c.next(&request);
            } catch (const std::bad_alloc&) {
                outOfMemory();
                close(c);
                return;
            }
            switch (next) {
                case Connection::Next::None:
                    return;
                case Connection::Next::Broken:
                    violation(c, "a malformed or oversized message");
                    return;
                case Connection::Next::Request:
                    break;
            }
            // Releases the consumer queued in its pages come before this request, as they were made.
            if (c.consumer != 0) frames.drainPages(c.consumer);
            Done done = Done::Violation;
            try {
                done = c.pending ? Done::Violation : handle(c, request);
            } catch (const std::bad_alloc&) {
                outOfMemory();  // the client whose request needs memory that is not there loses its connection
                done = Done::Lost;
            }
            if (done == Done::Violation) {
                violation(c, "a request out of turn or out of range");
                return;
            }
            if (done == Done::Lost) {
                close(c);
                return;
            }
        }
    }

    Done handle(Connection& c, const msg::Request& request) {
        return std::visit([&](const auto& m) { return answer(c, m); }, request);
    }

    Done answer(Connection& c, const msg::Hello&) {
        if (c.greeted) return Done::Violation;
        c.greeted = true;
        handshakes.erase(std::remove_if(handshakes.begin(), handshakes.end(),
                                        [&](const Handshake& h) { return h.connection == &c; }),
                         handshakes.end());
        return sent(c.send(msg::Welcome{}));
    }
    Done answer(Connection& c, const msg::Attach& m) {
        if (!c.greeted || c.consumer != 0) return Done::Violation;
        ConsumerRecord* record = registry.find(m.consumer);
        // Only the process that owns a consumer may open more connections to it.
        if (record == nullptr || record->pid != c.pid()) return Done::Violation;
        c.consumer = m.consumer;
        c.record = record;
        return sent(c.send(msg::Status{0, 0}));
    }
    Done answer(Connection& c, const msg::InitConsumer& m) {
        if (!c.greeted) return Done::Violation;
        if (c.consumer == 0) {
            ConsumerRecord& record = registry.create(c.pid());
            c.consumer = record.local->id();
            c.record = &record;
            c.owner = true;
        }
        if (const uint64_t holder = registry.holderOf(m.channel, c.consumer); holder != 0) {
            std::fprintf(stderr, "sensor-simd: refused pid %llu: channel %s is held by pid %llu\n",
                         static_cast<unsigned long long>(c.pid()), m.channel.c_str(),
                         static_cast<unsigned long long>(holder));
            return sent(c.send(msg::Status{msg::kChannelBusy, 0}));
        }
        const int result = c.record->local->initConsumer(m.app, m.channel, m.param);
        if (result == 0) {
            if (c.record->channel.empty())
                std::fprintf(stderr, "sensor-simd: consumer connected: pid %llu, application %s, channel %s\n",
                             static_cast<unsigned long long>(c.pid()), m.app.c_str(), m.channel.c_str());
            c.record->app = m.app;
            c.record->channel = m.channel;
        }
        return sent(c.send(msg::Status{result, c.consumer}));
    }
    Done answer(Connection& c, const msg::RegStream& m) {
        if (c.record == nullptr) return Done::Violation;
        const int result = c.record->local->regConsumerStream(m.streamId, m.configs, m.hasCallback, std::nullopt);
        if (result == 0) c.record->streams.insert(m.streamId);
        return sent(c.send(msg::Status{result, 0}));
    }
    Done answer(Connection& c, const msg::InitDone&) {
        if (c.record == nullptr) return Done::Violation;
        return sent(c.send(msg::Status{c.record->local->initConsumerDone(), 0}));
    }
    Done answer(Connection& c, const msg::GetState&) {
        if (c.record == nullptr) return Done::Violation;
        return sent(c.send(msg::Status{c.record->local->getStreamState(), 0}));
    }
    Done answer(Connection& c, const msg::Deinit&) {
        if (c.record == nullptr) return Done::Violation;
        const int result = c.record->local->deinitStream();
        frames.tornDown(c.consumer, connectionsOf(c.consumer));
        return sent(c.send(msg::Status{result, 0}));
    }
    Done answer(Connection& c, const msg::GetFrame& m) {
        if (c.record == nullptr) return Done::Violation;
        return sent(frames.getFrame(c, m.streamId, m.output, m.noWait));
    }
    Done answer(Connection& c, const msg::Release& m) {
        // Not answered: the client knows which frames it holds, and so whether this one is refused.
        if (c.record == nullptr) return Done::Violation;
        if (c.record->local->releaseFrame(m.streamId, m.output, m.objIndex, m.counter) != 0) ++c.record->refused;
        return Done::Ok;
    }
    Done answer(Connection& c, const msg::OpenPage&) {
        if (c.record == nullptr || c.page) return Done::Violation;
        return sent(frames.openPage(c));
    }
    Done answer(Connection& c, const msg::MapBuffer& m) {
        if (c.record == nullptr) return Done::Violation;
        {
            // Only the buffer of a frame this connection's page answered.
            std::lock_guard<std::mutex> lock(c.pageMutex);
            if (c.offered.count(m.bufferId) == 0) return Done::Violation;
        }
        return sent(frames.mapBuffer(c, m.bufferId));
    }
    Done answer(Connection& c, const msg::GetServiceState&) {
        if (!c.greeted) return Done::Violation;
        frames.drainPages(0);  // held frames as the consumers see them
        msg::ServiceStateAnswer a;
        a.state.consumers = registry.consumers();
        for (const auto& [id, outputs] : model::streamTable()) {
            for (const auto& o : outputs) {
                const auto s = sensor_sim::rig::outputStats(id, o.output);
                a.state.outputs.push_back({id, o.output, s.poolSize, s.inUse, s.poolDrops, s.produced, s.delivered});
            }
        }
        a.state.refusals = registry.refusals();
        a.state.maxClients = limits.maxClients;
        a.state.clients = static_cast<uint32_t>(connections.size());
        return sent(c.send(a));
    }
    // The camera-access calls and the statistics: the in-process vehicle answers them.
    template <typename M>
    Done answer(Connection& c, const M& m) {
        static_assert(msg::kIsVehicleCall<M>, "every request has its handler");
        if (!c.greeted) return Done::Violation;
        return sent(c.send(sensor_sim::vehicle::inProcess().ask(m)));
    }

    void step(int timeoutMs) {
        Clock::time_point now = Clock::now();
        if (!listening && listener.fd() >= 0 && !stopping && now >= listenPausedUntil) setListening(true);
        epoll_event events[64];
        const int n = ::epoll_wait(epoll, events, 64, timeoutMs);
        for (int i = 0; i < n; ++i) {
            const int fd = events[i].data.fd;
            if (fd == wake) {
                uint64_t count;
                const ssize_t drained = ::read(wake, &count, sizeof count);
                (void)drained;  // only the wake-up matters
            } else if (fd == signals) {
                stopping = true;
            } else if (fd == listener.fd()) {
                acceptSome();
            } else {
                auto it = connections.find(fd);
                if (it == connections.end()) continue;
                Connection& c = *it->second;
                if ((events[i].events & EPOLLOUT) != 0 && !c.flush()) {
                    close(c);
                    continue;
                }
                if ((events[i].events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0) readable(c);
            }
        }
        now = Clock::now();
        frames.serveWaiting(now);
        while (!handshakes.empty() && handshakes.front().deadline <= now) {
            Connection& c = *handshakes.front().connection;
            handshakes.pop_front();
            ++registry.refusals().timeouts;
            close(c);
        }
        // Write interest only while answers wait for a slow reader.
        for (auto& [fd, c] : connections) {
            if (c->wantsWrite() == c->writeWatched) continue;
            c->writeWatched = c->wantsWrite();
            watch(fd, c->writeWatched ? EPOLLIN | EPOLLOUT : EPOLLIN);
        }
    }

    // How long the loop may sleep: until the next deadline, and never long.
    int nextTimeout() {
        const Clock::time_point now = Clock::now();
        Clock::time_point next = now + std::chrono::milliseconds(250);
        if (!handshakes.empty()) next = std::min(next, handshakes.front().deadline);
        next = std::min(next, frames.serveWaiting(now));
        if (!listening && listener.fd() >= 0) next = std::min(next, listenPausedUntil);
        const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(next - now).count();
        return static_cast<int>(std::clamp<int64_t>(ms + 1, 0, 250));
    }
};

Server::Server(Limits limits) : m_impl(new Impl) {
    m_impl->limits = limits;
}

Server::~Server() = default;

std::string Server::listen(const std::string& path) {
    std::string error = m_impl->listener.open(path);
    if (error.empty()) m_impl->setListening(true);
    return error;
}

void Server::adopt(int fd, uint64_t pid) {
    m_impl->adopt(fd, pid);
}

void Server::step(int timeoutMs) {
    m_impl->step(timeoutMs);
}

size_t Server::connections() const {
    return m_impl->connections.size();
}

void Server::run() {
    Impl& s = *m_impl;
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    s.signals = ::signalfd(-1, &stopSignals, SFD_CLOEXEC | SFD_NONBLOCK);
    if (s.signals >= 0) s.watch(s.signals, EPOLLIN);
    while (!s.stopping) s.step(s.nextTimeout());
    s.setListening(false);
    s.listener.close();
    // Clients waiting on their pages return at once; every client sees its connection end now.
    s.frames.closePages();
    while (!s.connections.empty()) s.close(*s.connections.begin()->second);
}

}  // namespace sensor_simd
