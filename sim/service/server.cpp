// sensor-simd's server. Each connection gets a thread that reads one request at a time and answers it
// from the simulator's models, so a consumer waiting for a frame never delays another; a get that has
// to wait is answered by the producer of its frame (see Connection). A consumer's connections also get a
// control page (wire::ControlPage), through which a client that keeps up gets and releases frames
// without a message: the producer answers its get there, and releases are drained before each frame
// takes a pool buffer, so no thread of the service wakes per frame and consumer but the producer's. A
// connection that sends InitConsumer owns a consumer of the stream model: when it closes (the process
// ended or was killed), the consumer is destroyed and the stream model returns its frames to the pools
// at once.
#include "server.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <shared_mutex>
#include <thread>

#include "sensor_sim/internal/camera_internal.h"
#include "sensor_sim/internal/stats_internal.h"
#include "sensor_sim/internal/streams_internal.h"
#include "sensor_sim/internal/wire.h"
#include "sensor_sim/rig.h"

namespace sensor_simd {
namespace {

namespace model = sensor_sim::streams::internal;
namespace cam = sensor_sim::camera::internal;
using sensor_sim::wire::CameraCall;
using sensor_sim::wire::Channel;
using sensor_sim::wire::ControlPage;
using sensor_sim::wire::Message;
using sensor_sim::wire::Type;

Message answer(Type type, std::initializer_list<uint64_t> words, std::string tail = {}) {
    Message m;
    m.type = type;
    size_t i = 0;
    for (uint64_t w : words) m.words[i++] = w;
    m.tail = std::move(tail);
    return m;
}

// What sensorctl service shows of a consumer.
struct ConsumerInfo {
    uint64_t pid = 0;
    std::string app;
    std::string channel;
    std::set<uint32_t> streams;
    uint64_t received = 0;
    uint64_t refused = 0;
};

std::string directoryOf(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

// One client connection. A get that finds no frame waiting becomes pending: the producer that delivers
// the next frame of that output answers it from its own thread (one wake-up, the consumer's, between a
// frame and its consumer instead of two), or the connection's thread answers it at the frame's deadline.
struct Connection {
    enum class Get { None, Waiting, Claimed, Done };

    explicit Connection(int fd) : channel(fd), wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}
    ~Connection() {
        if (wake >= 0) ::close(wake);
    }
    Channel channel;
    int wake;  // written when a pending get must be answered at once (its stream was torn down)
    model::ConsumerId consumer = 0;
    bool owner = false;
    std::set<uint64_t> sent;  // buffers whose descriptor this connection has passed
    // The pending get, guarded by Impl::pendingMutex. A producer claims it, takes the frame and marks
    // it done; while `sending` it writes the answer and uses `sent`, so the connection's thread touches
    // neither until it is over (the client cannot speak before the answer is written anyway).
    Get get = Get::None;
    bool sending = false;
    uint32_t stream = 0;
    uint32_t output = 0;
    std::chrono::steady_clock::time_point deadline{};
    bool expired = false;

    // The control page (after OpenPage) and what the service keeps of it, under `pageMutex`: the tail of
    // its release ring, and the buffers of the frames answered through it, which MapBuffer may ask for.
    std::mutex pageMutex;
    std::unique_ptr<sensor_sim::wire::PageMapping> page;
    uint32_t releaseTail = 0;
    bool pageBroken = false;  // its ring was malformed: the connection is being shut down
    std::map<uint64_t, std::weak_ptr<sensor_sim::Buffer>> offered;
};

// The words of a Frame answer, shared by the message and the control page.
void frameWords(const sensor_sim::streams::FrameSpec& frame, uint64_t bufferId, uint64_t* w) {
    w[0] = 0;
    w[1] = frame.counter;
    w[2] = frame.objIndex;
    w[3] = static_cast<uint64_t>(frame.sensorId);
    w[4] = frame.trailing;
    w[5] = bufferId;
    for (size_t i = 0; i < 9; ++i) w[6 + i] = frame.words[i];
}

void wakeUp(const Connection& c) {
    const uint64_t one = 1;
    const ssize_t written = ::write(c.wake, &one, sizeof one);
    (void)written;  // a counter already set wakes the connection all the same
}

}  // namespace

struct Server::Impl {
    std::string path;
    int listenFd = -1;
    std::mutex mutex;
    std::map<model::ConsumerId, ConsumerInfo> consumers;  // initialised consumers, by model id
    std::map<int, std::thread> threads;                   // by connection descriptor
    std::vector<std::thread> finished;                    // threads whose connection ended

    std::mutex pendingMutex;  // guards every Connection's pending get and `pending`
    std::condition_variable pendingDone;
    std::multimap<std::pair<uint32_t, uint32_t>, Connection*> pending;  // waiting gets by stream output

    std::shared_mutex linksMutex;     // guards `linked`; producers hold it shared
    std::vector<Connection*> linked;  // connections with a control page

    void serve(int fd, uint64_t pid);
    // Updates the record of a consumer that is still connected (not one whose owner has left).
    template <typename F>
    void note(model::ConsumerId consumer, F update) {
        std::lock_guard<std::mutex> lock(mutex);
        auto it = consumers.find(consumer);
        if (it != consumers.end()) update(it->second);
    }
    bool handle(Connection& c, const Message& m, uint64_t pid);
    bool getFrame(Connection& c, uint32_t stream, uint32_t output, bool noWait);
    bool sendFrame(Connection& c, int result, const sensor_sim::streams::FrameSpec& frame,
                   std::chrono::steady_clock::time_point deadline);
    bool awaitPending(Connection& c);
    void delivered(uint32_t stream, uint32_t output);
    void expirePending(model::ConsumerId consumer);
    bool openPage(Connection& c);
    bool mapBuffer(Connection& c, uint64_t id);
    // The page functions below expect c.pageMutex held.
    void drainReleases(Connection& c);
    void offerPage(Connection& c, uint32_t stream, uint32_t output);
    void answerPage(Connection& c, uint32_t stream, uint32_t output, int result,
                    const sensor_sim::streams::FrameSpec& frame);
    void refreshAvailable(Connection& c, uint32_t stream, uint32_t output);
    // Runs `f` on each linked connection (of `consumer`, or every one for 0) under its page lock.
    template <typename F>
    void forEachPage(model::ConsumerId consumer, F f) {
        std::shared_lock<std::shared_mutex> links(linksMutex);
        for (Connection* c : linked) {
            if (consumer != 0 && c->consumer != consumer) continue;
            std::lock_guard<std::mutex> lock(c->pageMutex);
            f(*c);
        }
    }
    Message camera(const Message& m);
    Message state();
};

Server::Server() : m_impl(new Impl) {}

Server::~Server() {
    if (m_impl->listenFd >= 0) ::close(m_impl->listenFd);
}

std::string Server::listen(const std::string& path) {
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
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return std::string("socket: ") + std::strerror(errno);
    const mode_t mask = ::umask(0177);  // the socket is created 0600, never briefly wider
    const int bound = ::bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr);
    ::umask(mask);
    if (bound != 0 || ::listen(fd, 64) != 0) {
        const std::string why = path + ": " + std::strerror(errno);
        ::close(fd);
        return why;
    }
    m_impl->listenFd = fd;
    m_impl->path = path;
    return "";
}

void Server::run() {
    Impl& s = *m_impl;
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    const int signals = ::signalfd(-1, &stopSignals, SFD_CLOEXEC);
    model::setDeliveryListener([&s](uint32_t stream, uint32_t output) { s.delivered(stream, output); });
    model::setReleaseCollector([&s] { s.forEachPage(0, [&s](Connection& c) { s.drainReleases(c); }); });
    for (;;) {
        pollfd fds[2] = {{s.listenFd, POLLIN, 0}, {signals, POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        if ((fds[1].revents & POLLIN) != 0) break;
        if ((fds[0].revents & POLLIN) == 0) continue;
        const int fd = ::accept4(s.listenFd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        ucred peer{};
        socklen_t len = sizeof peer;
        if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &len) != 0 || peer.uid != ::geteuid()) {
            std::fprintf(stderr, "sensor-simd: refused a connection from user %u\n",
                         static_cast<unsigned>(peer.uid));
            ::close(fd);
            continue;
        }
        std::lock_guard<std::mutex> lock(s.mutex);
        for (auto& t : s.finished) t.join();
        s.finished.clear();
        s.threads[fd] = std::thread([&s, fd, pid = static_cast<uint64_t>(peer.pid)] { s.serve(fd, pid); });
    }
    if (signals >= 0) ::close(signals);
    ::close(s.listenFd);
    s.listenFd = -1;
    ::unlink(s.path.c_str());
    // Clients waiting on their pages return at once; every client sees its connection end now, and the
    // threads leave their loops and clean up.
    s.forEachPage(0, [](Connection& c) {
        c.page->page().get.store(sensor_sim::wire::kPageClosed);
        sensor_sim::wire::wakePage(c.page->page());
    });
    std::vector<std::thread> all;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        for (auto& [fd, t] : s.threads) ::shutdown(fd, SHUT_RDWR);
    }
    for (;;) {
        std::thread t;
        {
            std::lock_guard<std::mutex> lock(s.mutex);
            for (auto& f : s.finished) all.push_back(std::move(f));
            s.finished.clear();
            if (s.threads.empty()) break;
            for (auto& [fd, th] : s.threads) ::shutdown(fd, SHUT_RDWR);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    for (auto& t : all) t.join();
    model::setDeliveryListener({});
    model::setReleaseCollector({});
}

void Server::Impl::serve(int fd, uint64_t pid) {
    {
        Connection c(fd);
        // A client that stops reading loses its connection rather than a thread of the service.
        c.channel.setSendBound(std::chrono::seconds(5));
        bool greeted = false;
        Message m;
        // Without its wake-up descriptor a connection could not wait for frames: it ends at once.
        while (c.wake >= 0 && c.channel.receive(&m) == Channel::Result::Received) {
            // The first message says hello; no other message may say it again.
            if ((m.type == Type::Hello) == greeted) break;
            if (m.type == Type::Hello) {
                greeted = true;
                if (!c.channel.send(answer(Type::Welcome, {sensor_sim::wire::kVersion}))) break;
                continue;
            }
            {
                std::unique_lock<std::mutex> lock(pendingMutex);
                pendingDone.wait(lock, [&] { return !c.sending; });
            }
            // Releases the consumer queued in its pages come before this request, as they were made.
            if (c.consumer != 0)
                forEachPage(c.consumer,
                            [this](Connection& linkedConnection) { drainReleases(linkedConnection); });
            if (!handle(c, m, pid)) break;
        }
        // Releases still in the consumer's rings were made before it left: they are not frames it lost.
        if (c.consumer != 0)
            forEachPage(c.consumer,
                        [this](Connection& linkedConnection) { drainReleases(linkedConnection); });
        {
            std::unique_lock<std::shared_mutex> links(linksMutex);
            linked.erase(std::remove(linked.begin(), linked.end(), &c), linked.end());
        }
        {
            std::unique_lock<std::mutex> lock(pendingMutex);
            pendingDone.wait(lock, [&] { return !c.sending; });  // `c` outlives a producer's answer
        }
        if (c.owner) {
            ConsumerInfo info;
            {
                std::lock_guard<std::mutex> lock(mutex);
                auto it = consumers.find(c.consumer);
                if (it != consumers.end()) {
                    info = it->second;
                    consumers.erase(it);
                }
            }
            size_t held = 0;
            for (const auto& h : sensor_sim::streams::held()) held += h.consumer == info.app ? 1 : 0;
            model::destroyConsumer(c.consumer);
            if (!info.app.empty()) {
                std::fprintf(stderr,
                             "sensor-simd: consumer left: pid %llu, application %s (%zu frames returned)\n",
                             static_cast<unsigned long long>(pid), info.app.c_str(), held);
            }
        }
        // `c` closes the descriptor here, before it leaves the table.
    }
    std::lock_guard<std::mutex> lock(mutex);
    auto it = threads.find(fd);
    if (it != threads.end()) {
        finished.push_back(std::move(it->second));
        threads.erase(it);
    }
}

// Answers a get with its frame (first passing the frame's buffer if this connection has not yet) or
// with the status that says why there is none.
bool Server::Impl::sendFrame(Connection& c, int result, const sensor_sim::streams::FrameSpec& frame,
                             std::chrono::steady_clock::time_point deadline) {
    if (result != 0 || !frame.buffer || frame.buffer->sharedFd() < 0) {
        // A frame without shared memory cannot reach another process: give it back.
        if (result == 0) model::releaseFrame(c.consumer, c.stream, c.output, frame.objIndex, frame.counter);
        return c.channel.send(answer(Type::Frame, {static_cast<uint64_t>(result != 0 ? result : 1)}), -1,
                              deadline);
    }
    const uint64_t bufferId = frame.buffer->serial();
    if (c.sent.insert(bufferId).second &&
        !c.channel.send(sensor_sim::wire::describeBuffer(bufferId, *frame.buffer), frame.buffer->sharedFd(),
                        deadline))
        return false;
    Message out = answer(Type::Frame, {});
    frameWords(frame, bufferId, out.words.data());
    note(c.consumer, [](ConsumerInfo& info) { ++info.received; });
    return c.channel.send(out, -1, deadline);
}

bool Server::Impl::getFrame(Connection& c, uint32_t stream, uint32_t output, bool noWait) {
    sensor_sim::streams::FrameSpec frame;
    std::chrono::milliseconds wait{0};
    int result;
    bool waits;
    {
        // Taking and becoming pending under one lock: a delivery after the take finds the get pending.
        std::lock_guard<std::mutex> lock(pendingMutex);
        c.stream = stream;
        c.output = output;
        result = model::takeFrame(c.consumer, stream, output, &frame, &wait);
        waits = result == sensor_sim::streams::kNoFrame && wait.count() > 0 && !noWait;
        if (waits) {
            c.get = Connection::Get::Waiting;
            c.deadline = std::chrono::steady_clock::now() + wait;
            c.expired = false;
            pending.emplace(std::make_pair(stream, output), &c);
        }
    }
    if (c.page) {
        std::lock_guard<std::mutex> lock(c.pageMutex);
        refreshAvailable(c, stream, output);
    }
    if (waits) return awaitPending(c);
    return sendFrame(c, result, frame, std::chrono::steady_clock::time_point::max());
}

// Waits until a producer has answered the pending get, or answers it at its deadline. The client sends
// nothing while its get is unanswered: anything it sends before is out of turn and ends the connection,
// as does its leaving.
bool Server::Impl::awaitPending(Connection& c) {
    using Clock = std::chrono::steady_clock;
    bool readable = false;
    for (;;) {
        std::unique_lock<std::mutex> lock(pendingMutex);
        pendingDone.wait(lock, [&] { return c.get != Connection::Get::Claimed; });
        if (c.get == Connection::Get::Done) {
            c.get = Connection::Get::None;
            return true;  // a producer that could not write the answer shut the connection down
        }
        // Still waiting.
        if (readable || c.expired || Clock::now() >= c.deadline) {
            auto range = pending.equal_range({c.stream, c.output});
            for (auto it = range.first; it != range.second; ++it) {
                if (it->second == &c) {
                    pending.erase(it);
                    break;
                }
            }
            c.get = Connection::Get::None;
            if (readable) return false;
            sensor_sim::streams::FrameSpec frame;
            std::chrono::milliseconds wait;
            const int result = model::takeFrame(c.consumer, c.stream, c.output, &frame, &wait);
            lock.unlock();
            return sendFrame(c, result, frame, Clock::time_point::max());
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(c.deadline - Clock::now());
        lock.unlock();
        pollfd fds[2] = {{c.channel.fd(), POLLIN, 0}, {c.wake, POLLIN, 0}};
        const int n = ::poll(fds, 2, static_cast<int>(std::max<int64_t>(left.count(), 0)) + 1);
        if (n < 0 && errno != EINTR) readable = true;  // unusable descriptor: treat as the client gone
        if (n > 0 && fds[0].revents != 0) readable = true;
        if (n > 0 && (fds[1].revents & POLLIN) != 0) {
            uint64_t count;
            const ssize_t drained = ::read(c.wake, &count, sizeof count);
            (void)drained;  // only the wake-up matters; `expired` says why
        }
    }
}

// A producer's thread, after it delivered a frame of this output: answers the gets that wait for it.
void Server::Impl::delivered(uint32_t stream, uint32_t output) {
    std::vector<Connection*> claimed;
    {
        std::lock_guard<std::mutex> lock(pendingMutex);
        auto range = pending.equal_range({stream, output});
        for (auto it = range.first; it != range.second; ++it) {
            it->second->get = Connection::Get::Claimed;
            claimed.push_back(it->second);
        }
        pending.erase(range.first, range.second);
    }
    for (Connection* c : claimed) {
        sensor_sim::streams::FrameSpec frame;
        std::chrono::milliseconds wait{0};
        const int result = model::takeFrame(c->consumer, stream, output, &frame, &wait);
        {
            std::lock_guard<std::mutex> lock(pendingMutex);
            if (result == 0) {
                c->get = Connection::Get::Done;
                c->sending = true;
            } else {
                // Another get of the same consumer took the frame first: wait on, or answer now when the
                // consumer no longer waits for frames at all.
                c->get = Connection::Get::Waiting;
                c->expired = wait.count() == 0;
                pending.emplace(std::make_pair(stream, output), c);
                if (c->expired) wakeUp(*c);
            }
        }
        pendingDone.notify_all();
        if (result != 0) continue;
        // The client waits for this answer and has read every earlier one, so the socket has room: a
        // write that cannot finish at once means a broken client, never a stalled producer.
        if (!sendFrame(*c, result, frame, std::chrono::steady_clock::now() + std::chrono::milliseconds(20)))
            ::shutdown(c->channel.fd(), SHUT_RDWR);
        {
            std::lock_guard<std::mutex> lock(pendingMutex);
            c->sending = false;
        }
        pendingDone.notify_all();
    }
    forEachPage(0, [&](Connection& c) { offerPage(c, stream, output); });
}

// --- Control pages ---------------------------------------------------------------------------------

bool Server::Impl::openPage(Connection& c) {
    if (c.consumer == 0 || c.page) return false;  // before InitConsumer or Attach, or a second time
    std::string error;
    auto page = sensor_sim::wire::PageMapping::create(&error);
    if (!page) {
        std::fprintf(stderr, "sensor-simd: no control page (%s): the connection's frames go by messages\n",
                     error.c_str());
        return c.channel.send(answer(Type::Status, {1, 0}));
    }
    const int fd = page->fd();
    {
        std::lock_guard<std::mutex> lock(c.pageMutex);
        c.page = std::move(page);
    }
    {
        std::unique_lock<std::shared_mutex> links(linksMutex);
        linked.push_back(&c);
    }
    {
        // Frames that arrived before the page existed; later deliveries update it themselves.
        std::lock_guard<std::mutex> lock(c.pageMutex);
        for (const auto& [id, outputs] : model::streamTable()) {
            for (const auto& o : outputs) refreshAvailable(c, id, o.output);
        }
    }
    return c.channel.send(answer(Type::Page, {sensor_sim::wire::kPageBytes}), fd);
}

// The buffer of a frame this connection's page answered: its geometry and descriptor, then Status 0
// (1 when the buffer is gone). Asking for any other buffer is out of turn.
bool Server::Impl::mapBuffer(Connection& c, uint64_t id) {
    std::shared_ptr<sensor_sim::Buffer> buffer;
    {
        std::lock_guard<std::mutex> lock(c.pageMutex);
        auto it = c.offered.find(id);
        if (it == c.offered.end()) return false;
        buffer = it->second.lock();
    }
    if (!buffer) return c.channel.send(answer(Type::Status, {1, 0}));
    c.sent.insert(id);
    return c.channel.send(sensor_sim::wire::describeBuffer(id, *buffer), buffer->sharedFd()) &&
           c.channel.send(answer(Type::Status, {0, 0}));
}

void Server::Impl::drainReleases(Connection& c) {
    if (!c.page || c.pageBroken) return;
    std::array<sensor_sim::wire::ReleaseEntry, sensor_sim::wire::kReleaseSlots> entries;
    const int count = sensor_sim::wire::takeReleases(c.page->page(), &c.releaseTail, &entries);
    if (count < 0) {
        // A ring no honest client writes: that client's connection ends, nobody else's.
        c.pageBroken = true;
        ::shutdown(c.channel.fd(), SHUT_RDWR);
        return;
    }
    for (int i = 0; i < count; ++i) {
        const auto& e = entries[static_cast<size_t>(i)];
        if (model::releaseFrame(c.consumer, e.streamId, e.output, e.objIndex, e.counter) != 0)
            note(c.consumer, [](ConsumerInfo& info) { ++info.refused; });
    }
}

void Server::Impl::refreshAvailable(Connection& c, uint32_t stream, uint32_t output) {
    if (!c.page || stream >= sensor_sim::wire::kPageStreams || output > 1) return;
    const bool waiting = model::waitingFrames(c.consumer, stream, output) != 0;
    auto& flag = c.page->page().available[stream * 2 + output];
    if (flag.load(std::memory_order_relaxed) != (waiting ? 1 : 0)) flag.store(waiting ? 1 : 0);
}

// A producer delivered a frame of this output: publishes whether frames wait for the connection's
// consumer and, when the client waits for one, takes it for the client.
void Server::Impl::offerPage(Connection& c, uint32_t stream, uint32_t output) {
    if (!c.page || c.pageBroken || stream >= sensor_sim::wire::kPageStreams) return;
    refreshAvailable(c, stream, output);
    ControlPage& page = c.page->page();
    if (page.available[stream * 2 + output].load() == 0) return;
    uint32_t expected = sensor_sim::wire::pageWaiting(stream, output);
    if (!page.get.compare_exchange_strong(expected, sensor_sim::wire::kPageClaimed)) return;
    sensor_sim::streams::FrameSpec frame;
    std::chrono::milliseconds wait{0};
    const int result = model::takeFrame(c.consumer, stream, output, &frame, &wait);
    if (result != 0) {
        // Another connection of the consumer took the frame first: the client waits on.
        page.get.store(sensor_sim::wire::pageWaiting(stream, output));
        refreshAvailable(c, stream, output);
        return;
    }
    answerPage(c, stream, output, result, frame);
}

// Writes the answer of a claimed get and wakes the client.
void Server::Impl::answerPage(Connection& c, uint32_t stream, uint32_t output, int result,
                              const sensor_sim::streams::FrameSpec& frame) {
    ControlPage& page = c.page->page();
    uint64_t words[15] = {};
    if (result == 0 && (!frame.buffer || frame.buffer->sharedFd() < 0)) {
        // A frame without shared memory cannot reach another process: give it back.
        model::releaseFrame(c.consumer, stream, output, frame.objIndex, frame.counter);
        result = 1;
    }
    if (result == 0) {
        const uint64_t bufferId = frame.buffer->serial();
        c.offered[bufferId] = frame.buffer;
        frameWords(frame, bufferId, words);
        note(c.consumer, [](ConsumerInfo& info) { ++info.received; });
    } else {
        words[0] = static_cast<uint64_t>(result);
    }
    // Before the answer: a client that wakes at once must not find the taken frame still announced.
    refreshAvailable(c, stream, output);
    std::memcpy(page.answer, words, sizeof words);
    page.get.store(sensor_sim::wire::kPageAnswered, std::memory_order_release);
    sensor_sim::wire::wakePage(page);
}

// The consumer's stream was torn down: its pending gets are answered now rather than at their deadlines.
void Server::Impl::expirePending(model::ConsumerId consumer) {
    std::lock_guard<std::mutex> lock(pendingMutex);
    for (auto& [key, c] : pending) {
        if (c->consumer != consumer) continue;
        c->expired = true;
        wakeUp(*c);
    }
}

// Answers one request; false ends the connection (a message out of turn or out of range).
bool Server::Impl::handle(Connection& c, const Message& m, uint64_t pid) {
    Channel& channel = c.channel;
    model::ConsumerId& consumer = c.consumer;
    auto status = [&](uint64_t value, uint64_t extra = 0) {
        return channel.send(answer(Type::Status, {value, extra}));
    };
    const bool streamCall = (m.type >= Type::RegStream && m.type <= Type::Release) ||
                            m.type == Type::OpenPage || m.type == Type::MapBuffer;
    if (streamCall && consumer == 0) return false;  // a stream call before InitConsumer or Attach
    switch (m.type) {
        case Type::Attach: {
            if (consumer != 0) return false;
            std::lock_guard<std::mutex> lock(mutex);
            auto it = consumers.find(m.words[0]);
            // Only the process that owns a consumer may open more connections to it.
            if (it == consumers.end() || it->second.pid != pid) return false;
            consumer = m.words[0];
            return status(0);
        }
        case Type::InitConsumer: {
            std::string app, name;
            if (!sensor_sim::wire::decodeNames(m.tail, &app, &name)) return false;
            if (consumer == 0) {
                consumer = model::createConsumer();
                c.owner = true;
            }
            {
                std::lock_guard<std::mutex> lock(mutex);
                for (const auto& [id, other] : consumers) {
                    if (id != consumer && (other.app == app || other.channel == name)) {
                        std::fprintf(
                            stderr,
                            "sensor-simd: refused pid %llu: application %s or channel %s is taken by pid "
                            "%llu\n",
                            static_cast<unsigned long long>(pid), app.c_str(), name.c_str(),
                            static_cast<unsigned long long>(other.pid));
                        return status(sensor_sim::wire::kChannelBusy);
                    }
                }
            }
            const int result =
                model::initConsumer(consumer, app, name, static_cast<unsigned short>(m.words[0]));
            if (result == 0) {
                std::lock_guard<std::mutex> lock(mutex);
                ConsumerInfo& info = consumers[consumer];
                const bool fresh = info.app.empty();
                info.pid = pid;
                info.app = app;
                info.channel = name;
                if (fresh) {
                    std::fprintf(stderr,
                                 "sensor-simd: consumer connected: pid %llu, application %s, channel %s\n",
                                 static_cast<unsigned long long>(pid), app.c_str(), name.c_str());
                }
            }
            return status(static_cast<uint64_t>(result), consumer);
        }
        case Type::RegStream: {
            std::vector<sensor_sim::streams::Config> configs;
            if (!sensor_sim::wire::decodeConfigs(m.tail, m.words[2], &configs)) return false;
            const uint32_t id = static_cast<uint32_t>(m.words[0]);
            const int result = model::regConsumerStream(consumer, id, configs, m.words[1] != 0);
            if (result == 0) note(consumer, [id](ConsumerInfo& info) { info.streams.insert(id); });
            return status(static_cast<uint64_t>(result));
        }
        case Type::InitDone:
            return status(static_cast<uint64_t>(model::initConsumerDone(consumer)));
        case Type::GetState:
            return status(static_cast<uint64_t>(model::getStreamState(consumer)));
        case Type::Deinit: {
            const int result = model::deinitStream(consumer);
            expirePending(consumer);
            // Gets waiting on the consumer's pages are answered now too (with the torn stream's status).
            forEachPage(consumer, [this](Connection& other) {
                ControlPage& page = other.page->page();
                uint32_t get = page.get.load();
                if (sensor_sim::wire::pagePhase(get) != sensor_sim::wire::kPageWaiting) return;
                if (!page.get.compare_exchange_strong(get, sensor_sim::wire::kPageClaimed)) return;
                const uint32_t stream = sensor_sim::wire::pageStream(get),
                               output = sensor_sim::wire::pageOutput(get);
                sensor_sim::streams::FrameSpec frame;
                std::chrono::milliseconds wait{0};
                answerPage(other, stream, output,
                           model::takeFrame(other.consumer, stream, output, &frame, &wait), frame);
            });
            return status(static_cast<uint64_t>(result));
        }
        case Type::GetFrame:
            return getFrame(c, static_cast<uint32_t>(m.words[0]), static_cast<uint32_t>(m.words[1]),
                            m.words[2] != 0);
        case Type::OpenPage:
            return openPage(c);
        case Type::MapBuffer:
            return mapBuffer(c, m.words[0]);
        case Type::Release: {
            // Not answered: the client knows which frames it holds, and so whether this one is refused.
            // Its next request usually follows at once, so one wake-up serves both.
            const int result = model::releaseFrame(consumer, static_cast<uint32_t>(m.words[0]),
                                                   static_cast<uint32_t>(m.words[1]),
                                                   static_cast<uint16_t>(m.words[2]), m.words[3]);
            if (result != 0) note(consumer, [](ConsumerInfo& info) { ++info.refused; });
            return true;
        }
        case Type::Camera:
            return channel.send(camera(m));
        case Type::Stats: {
            sensor_sim::stats::FrameStats stats;
            if (!sensor_sim::stats::internal::lookup(static_cast<uint16_t>(m.words[0]), m.words[1], &stats))
                return channel.send(answer(Type::StatsAnswer, {1, 0}));
            std::string tail;
            for (const auto& d : stats.descriptors) tail.append(reinterpret_cast<const char*>(d.data()), 32);
            tail.append(reinterpret_cast<const char*>(stats.data.data()), stats.data.size());
            uint32_t bits;
            std::memcpy(&bits, &stats.brightness, sizeof bits);
            return channel.send(answer(Type::StatsAnswer, {0, bits}, std::move(tail)));
        }
        case Type::ServiceState:
            return channel.send(state());
        default:
            return false;  // answers and a second Hello are never requests
    }
}

Message Server::Impl::camera(const Message& m) {
    const auto call = static_cast<CameraCall>(m.words[0]);
    const uint32_t id = static_cast<uint32_t>(m.words[1]);
    const uint16_t a = static_cast<uint16_t>(m.words[2]);
    Message out = answer(Type::CameraAnswer, {});
    uint64_t* w = out.words.data();
    switch (call) {
        case CameraCall::DetectAll:
            w[0] = cam::detectAllSensors();
            break;
        case CameraCall::LinkAndVideo: {
            uint32_t link = 0, video = 0;
            std::map<unsigned int, unsigned char> states;
            w[0] = cam::detectLinkAndVideoMask(link, video, states);
            w[1] = link;
            w[2] = video;
            for (const auto& [sensor, byte] : states) {
                out.tail += static_cast<char>(sensor);
                out.tail += static_cast<char>(byte);
            }
            break;
        }
        case CameraCall::Info: {
            std::array<uint8_t, 6> info{};
            w[0] = cam::sensorInfo(id, info);
            for (size_t i = 0; i < 6; ++i) w[1 + i] = info[i];
            break;
        }
        case CameraCall::Versions: {
            std::vector<uint8_t> first, second;
            w[0] = cam::sensorVersions(id, first, second);
            w[1] = first.size();
            out.tail.assign(first.begin(), first.end());
            out.tail.append(second.begin(), second.end());
            break;
        }
        case CameraCall::TypeInfo: {
            bool present = false;
            uint8_t code = 0;
            w[0] = cam::sensorType(id, present, code);
            w[1] = present;
            w[2] = code;
            break;
        }
        case CameraCall::ReadReg8: {
            uint8_t value = 0;
            w[0] = cam::readReg8(id, a, value);
            w[1] = value;
            break;
        }
        case CameraCall::WriteReg8:
            w[0] = cam::writeReg8(id, a, static_cast<uint8_t>(m.words[3]));
            break;
        case CameraCall::ReadReg16: {
            uint16_t value = 0;
            w[0] = cam::readReg16(id, a, value);
            w[1] = value;
            break;
        }
        case CameraCall::WriteReg16:
            w[0] = cam::writeReg16(id, a, static_cast<uint16_t>(m.words[3]));
            break;
        case CameraCall::ReadI2c: {
            std::vector<uint8_t> buf;
            uint16_t len = static_cast<uint16_t>(m.words[4]);
            w[0] = cam::readI2c(id, a, buf, len);
            if (w[0] == 0) out.tail.assign(buf.begin(), buf.end());
            break;
        }
        case CameraCall::WriteI2c:
            w[0] = cam::writeI2c(id, a, std::vector<uint8_t>(m.tail.begin(), m.tail.end()),
                                 static_cast<uint16_t>(m.words[4]));
            break;
        case CameraCall::SetFsyncDelta:
            w[0] = cam::setFsyncDelta(id, m.words[3]);
            break;
        case CameraCall::FsyncFirstTime:
            w[1] = cam::fsyncFirstTime();
            break;
        case CameraCall::RadarInner:
        case CameraCall::LidarInner: {
            uint32_t value = 0;
            w[0] = call == CameraCall::RadarInner ? cam::radarInnerState(value) : cam::lidarInnerState(value);
            w[1] = value;
            break;
        }
        case CameraCall::Lev2Faults: {
            std::vector<uint16_t> faults;
            uint64_t time = 0;
            w[0] = static_cast<uint64_t>(static_cast<int64_t>(cam::lev2Faults(faults, time)));
            w[1] = time;
            out.tail.assign(reinterpret_cast<const char*>(faults.data()), faults.size() * sizeof(uint16_t));
            break;
        }
        case CameraCall::Count:
            break;
    }
    return out;
}

Message Server::Impl::state() {
    forEachPage(0, [this](Connection& c) { drainReleases(c); });  // held frames as the consumers see them
    sensor_sim::wire::ServiceState st;
    const auto held = sensor_sim::streams::held();
    {
        std::lock_guard<std::mutex> lock(mutex);
        for (const auto& [id, c] : consumers) {
            sensor_sim::wire::ConsumerState out;
            out.pid = c.pid;
            out.app = c.app;
            out.channel = c.channel;
            out.streams.assign(c.streams.begin(), c.streams.end());
            out.received = c.received;
            out.refused = c.refused;
            for (const auto& h : held) out.held += h.consumer == c.app ? 1 : 0;
            st.consumers.push_back(std::move(out));
        }
    }
    for (const auto& [id, outputs] : model::streamTable()) {
        for (const auto& o : outputs) {
            const auto stats = sensor_sim::rig::outputStats(id, o.output);
            st.outputs.push_back({id, o.output, stats.poolSize, stats.inUse, stats.poolDrops, stats.produced,
                                  stats.delivered});
        }
    }
    return sensor_sim::wire::encodeState(st);
}

}  // namespace sensor_simd
