// Zero-copy frames without a per-frame allocation: described buffers, reused memories whose dispose
// returns the frame, and a GstBufferPool whose buffers (with their video meta) come back for reuse.
#include "wrap_pool.h"

#include <gst/video/video.h>
#include <nvscibuf.h>

#include "frame_layout.h"

namespace sensoripc {

// Past this many wraps, the idle ones are forgotten (the vehicle's pools have 9 buffers a stream: only
// scripted streams with a new buffer per frame get there).
constexpr size_t kMaxWraps = 64;

struct WrapPool::Wrap {
    std::shared_ptr<const Described> described;
    GstMemory* memory = nullptr;  // ours while idle; downstream's while busy
    sensor_consumer::Frame frame;
    bool busy = false;       // carries a frame not yet returned
    bool discarded = false;  // forgotten: its memory is freed when it comes back
};

namespace {

// What a wrapped memory knows of its owner: the pool, if it still exists, and its wrap there.
struct MemoryToken {
    std::weak_ptr<WrapPool> pool;
    WrapPool::Wrap* wrap;
};

GQuark tokenQuark() {
    static const GQuark quark = g_quark_from_static_string("sensoripc-wrap");
    return quark;
}

// ---- The buffer pool: buffers without memory, kept with their video meta between frames.

struct GstSensorIpcWrapPool {
    GstBufferPool parent;
    GMutex lock;
    GQueue* idle;
};
struct GstSensorIpcWrapPoolClass {
    GstBufferPoolClass parent;
};

G_DEFINE_TYPE(GstSensorIpcWrapPool, gst_sensor_ipc_wrap_pool, GST_TYPE_BUFFER_POOL)
#define WRAP_BUFFER_POOL(obj) (reinterpret_cast<GstSensorIpcWrapPool*>(obj))

GstFlowReturn wrapPoolAcquire(GstBufferPool* pool, GstBuffer** buffer, GstBufferPoolAcquireParams*) {
    GstSensorIpcWrapPool* self = WRAP_BUFFER_POOL(pool);
    g_mutex_lock(&self->lock);
    auto* reused = static_cast<GstBuffer*>(g_queue_pop_head(self->idle));
    g_mutex_unlock(&self->lock);
    *buffer = reused != nullptr ? reused : gst_buffer_new();
    return GST_FLOW_OK;
}

// After the pool's reset (flags, timestamps, metas but ours): the memory goes, and with its last
// reference the frame.
void wrapPoolRelease(GstBufferPool* pool, GstBuffer* buffer) {
    GstSensorIpcWrapPool* self = WRAP_BUFFER_POOL(pool);
    gst_buffer_remove_all_memory(buffer);
    g_mutex_lock(&self->lock);
    g_queue_push_head(self->idle, buffer);
    g_mutex_unlock(&self->lock);
}

void wrapPoolFinalize(GObject* object) {
    GstSensorIpcWrapPool* self = WRAP_BUFFER_POOL(object);
    g_queue_free_full(self->idle, reinterpret_cast<GDestroyNotify>(gst_buffer_unref));
    g_mutex_clear(&self->lock);
    G_OBJECT_CLASS(gst_sensor_ipc_wrap_pool_parent_class)->finalize(object);
}

void gst_sensor_ipc_wrap_pool_init(GstSensorIpcWrapPool* self) {
    g_mutex_init(&self->lock);
    self->idle = g_queue_new();
}

void gst_sensor_ipc_wrap_pool_class_init(GstSensorIpcWrapPoolClass* klass) {
    G_OBJECT_CLASS(klass)->finalize = wrapPoolFinalize;
    GST_BUFFER_POOL_CLASS(klass)->acquire_buffer = wrapPoolAcquire;
    GST_BUFFER_POOL_CLASS(klass)->release_buffer = wrapPoolRelease;
}

// ---- Memories: the last unref of a busy one returns its frame and keeps it for the next frame.

// Without the pool (gone with its element), the memory is freed. A kept memory is revived (referenced
// again) by the pool; should the pool go with this call's reference, its shutdown frees the memory, and
// nothing touches it after.
gboolean memoryDispose(GstMiniObject* object) {
    auto* token = static_cast<MemoryToken*>(gst_mini_object_get_qdata(object, tokenQuark()));
    std::shared_ptr<WrapPool> pool = token != nullptr ? token->pool.lock() : nullptr;
    if (!pool) return TRUE;
    const bool kept = pool->onMemoryReturned(token->wrap, GST_MEMORY_CAST(object));
    pool.reset();
    return kept ? FALSE : TRUE;
}

void setVideoMeta(GstBuffer* buffer, const sensor_consumer::FrameLayout& layout) {
    GstVideoMeta* meta = gst_buffer_get_video_meta(buffer);
    if (isBayer(layout)) {
        // Bayer caps carry no stride: no meta.
        if (meta != nullptr) gst_buffer_remove_meta(buffer, &meta->meta);
        return;
    }
    if (meta == nullptr) {
        meta = gst_buffer_add_video_meta(buffer, GST_VIDEO_FRAME_FLAG_NONE, videoFormat(layout), layout.width,
                                         layout.height);
        meta->meta.flags = GstMetaFlags(meta->meta.flags | GST_META_FLAG_POOLED);
    }
    meta->format = videoFormat(layout);
    meta->width = layout.width;
    meta->height = layout.height;
    meta->n_planes = layout.planeCount;
    for (uint32_t i = 0; i < GST_VIDEO_MAX_PLANES; ++i) {
        meta->offset[i] = i < layout.planeCount ? gsize(layout.planes[i].offset) : 0;
        meta->stride[i] = i < layout.planeCount ? gint(layout.planes[i].pitch) : 0;
    }
}

}  // namespace

WrapPool::WrapPool(std::shared_ptr<sensor_consumer::Session> session) : m_session(std::move(session)) {
    m_buffers = GST_BUFFER_POOL(g_object_new(gst_sensor_ipc_wrap_pool_get_type(), nullptr));
    gst_object_ref_sink(m_buffers);
    GstStructure* config = gst_buffer_pool_get_config(m_buffers);
    gst_buffer_pool_config_set_params(config, nullptr, 0, 0, 0);
    gst_buffer_pool_set_config(m_buffers, config);
    gst_buffer_pool_set_active(m_buffers, TRUE);
}

std::shared_ptr<WrapPool> WrapPool::create(std::shared_ptr<sensor_consumer::Session> session) {
    return std::shared_ptr<WrapPool>(new WrapPool(std::move(session)));
}

WrapPool::~WrapPool() {
    shutdown();
}

GstBuffer* WrapPool::wrap(const std::shared_ptr<const Described>& described, const sensor_consumer::Frame& frame) {
    GstBuffer* buffer = nullptr;
    if (gst_buffer_pool_acquire_buffer(m_buffers, &buffer, nullptr) != GST_FLOW_OK) return nullptr;
    GstMemory* memory = nullptr;
    std::vector<GstMemory*> forgotten;
    std::vector<std::unique_ptr<Wrap>> forgottenWraps;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        Wrap* wrap = nullptr;
        for (const auto& w : m_wraps) {
            if (w->described == described && !w->busy && w->memory != nullptr) {
                wrap = w.get();
                break;
            }
        }
        if (wrap == nullptr && m_wraps.size() >= kMaxWraps) {
            // Forget the idle wraps; their memories are freed below, outside the lock.
            std::vector<std::unique_ptr<Wrap>> kept;
            for (auto& w : m_wraps) {
                if (w->busy) {
                    kept.push_back(std::move(w));
                    continue;
                }
                w->discarded = true;
                if (w->memory != nullptr) forgotten.push_back(w->memory);
                w->memory = nullptr;
                forgottenWraps.push_back(std::move(w));
            }
            m_wraps.swap(kept);
        }
        if (wrap == nullptr) {
            auto created = std::make_unique<Wrap>();
            created->described = described;
            const gsize span = gsize(described->layout.span);
            created->memory = gst_memory_new_wrapped(GST_MEMORY_FLAG_READONLY, const_cast<guint8*>(described->base),
                                                     span, 0, span, nullptr, nullptr);
            gst_mini_object_set_qdata(GST_MINI_OBJECT_CAST(created->memory), tokenQuark(),
                                      new MemoryToken{weak_from_this(), created.get()},
                                      [](gpointer token) { delete static_cast<MemoryToken*>(token); });
            GST_MINI_OBJECT_CAST(created->memory)->dispose = memoryDispose;
            wrap = created.get();
            m_wraps.push_back(std::move(created));
        }
        wrap->busy = true;
        wrap->frame = frame;
        ++m_inFlight;
        memory = wrap->memory;
        wrap->memory = nullptr;
    }
    for (GstMemory* m : forgotten) gst_memory_unref(m);
    gst_buffer_append_memory(buffer, memory);
    setVideoMeta(buffer, described->layout);
    return buffer;
}

bool WrapPool::onMemoryReturned(Wrap* wrap, GstMemory* memory) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (wrap->busy) {
        // Made (or queued) under the pool's lock, so that a stop that returns every busy frame
        // afterwards finds it done: the session never waits here.
        m_session->releaseLater(wrap->frame);
        wrap->busy = false;
        --m_inFlight;
    }
    if (m_shutDown || wrap->discarded) return false;
    wrap->memory = memory;
    gst_memory_ref(memory);
    return true;
}

size_t WrapPool::inFlight() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_inFlight;
}

size_t WrapPool::giveBackAll() {
    std::lock_guard<std::mutex> lock(m_mutex);
    size_t n = 0;
    for (const auto& w : m_wraps) {
        if (!w->busy) continue;
        m_session->releaseLater(w->frame);
        w->busy = false;
        ++n;
    }
    m_inFlight = 0;
    return n;
}

void WrapPool::shutdown() {
    std::vector<GstMemory*> idle;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_shutDown) return;
        m_shutDown = true;
        for (const auto& w : m_wraps) {
            if (w->memory != nullptr) idle.push_back(w->memory);
            w->memory = nullptr;
        }
    }
    for (GstMemory* m : idle) gst_memory_unref(m);
    gst_buffer_pool_set_active(m_buffers, FALSE);
    gst_object_unref(m_buffers);
    m_buffers = nullptr;
}

}  // namespace sensoripc
