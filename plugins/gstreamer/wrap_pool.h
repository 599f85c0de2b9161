// The element's zero-copy frames: each pool buffer of the stream is described once (its layout and
// mapped planes), each frame handed downstream wraps the buffer's planes in a reused GstMemory inside a
// reused GstBuffer with its video meta, and goes back to the library when that memory's last reference
// goes, whatever downstream did with the buffer (copies of it share the memory).
#ifndef SENSORIPC_WRAP_POOL_H
#define SENSORIPC_WRAP_POOL_H

#include <gst/gst.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "sensor_consumer/geometry.h"
#include "sensor_consumer/session.h"

namespace sensoripc {

using Described = sensor_consumer::MappedLayout;

class WrapPool : public std::enable_shared_from_this<WrapPool> {
public:
    static std::shared_ptr<WrapPool> create(std::shared_ptr<sensor_consumer::Session> session);
    ~WrapPool();
    WrapPool(const WrapPool&) = delete;
    WrapPool& operator=(const WrapPool&) = delete;

    // The buffer's description: worked out (attributes, layout, mapping) the first time the buffer
    // comes, looked up after. Null with `error` when it cannot be described.
    std::shared_ptr<const Described> describe(NvSciBufObj image, std::string& error) {
        return m_layouts.find(image, error);
    }
    // A buffer over the held frame's planes (with a video meta for raw video); the frame is returned
    // when the buffer's memory goes. Null when the pool is flushing.
    GstBuffer* wrap(const std::shared_ptr<const Described>& described, const sensor_consumer::Frame& frame);
    // Frames downstream and not yet returned.
    size_t inFlight();
    // Returns every frame still downstream (their buffers' later unrefs return nothing); how many.
    size_t giveBackAll();
    // Frees the idle wrappers; buffers still downstream free theirs when they return.
    void shutdown();

    struct Wrap;  // a reusable memory over one described buffer, and the frame it carries
    // From a wrapped memory's last unref: returns its frame; true when the memory is kept (referenced
    // again) for the next frame.
    bool onMemoryReturned(Wrap* wrap, GstMemory* memory);

private:
    explicit WrapPool(std::shared_ptr<sensor_consumer::Session> session);

    std::shared_ptr<sensor_consumer::Session> m_session;
    GstBufferPool* m_buffers = nullptr;
    std::mutex m_mutex;
    sensor_consumer::LayoutCache m_layouts;
    std::vector<std::unique_ptr<Wrap>> m_wraps;
    size_t m_inFlight = 0;
    bool m_shutDown = false;
};

}  // namespace sensoripc

#endif  // SENSORIPC_WRAP_POOL_H
