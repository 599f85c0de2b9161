// The writing half of sensorctl record: frames copied out of their buffers wait in a queue bounded in
// bytes, and one writer thread hands them to the MCAP writer, whose workers check and compress the chunks.
// A frame that does not fit the queue is counted as lost for its sensor, never waited for: the consumer
// threads must keep taking frames.
#ifndef SENSORCTL_RECORDER_H
#define SENSORCTL_RECORDER_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "sensor_recording/frame_message.h"
#include "sensor_recording/mcap.h"

namespace sensorctl {

class Recorder {
public:
    explicit Recorder(uint64_t queueBytes);
    ~Recorder();

    // Opens the file and starts the writer thread once the channels and metadata are added.
    sensor_recording::McapWriter& writer() { return m_writer; }
    void start();

    // A buffer for a message's record, reused from frames already written when one is free.
    std::vector<uint8_t> takeBuffer();
    // Queues the messages of one frame (a camera's processed frame with its raw frame go together, so
    // that a pair is kept or lost whole); false when they do not fit: the frame is lost.
    bool offer(std::vector<sensor_recording::OwnedMessage>& messages);

    // Writes what is queued, ends the file; false with error() when a write failed at any time.
    bool finish();
    // True once a write has failed (the recording cannot go on).
    bool failed() const { return m_failed.load() || m_writer.failed(); }
    std::string error();
    uint64_t bytesWritten() const { return m_writer.bytesWritten(); }
    // Messages in the file's complete chunks.
    uint64_t messagesWritten() const { return m_writer.messagesInFile(); }

private:
    void run();
    void recycle(std::vector<uint8_t>&& buffer);
    // Keeps a buffer for reuse while fewer than a few are kept; m_mutex held.
    void keepLocked(std::vector<uint8_t>&& buffer);
    static uint64_t sizeOf(const std::vector<sensor_recording::OwnedMessage>& messages);

    sensor_recording::McapWriter m_writer;
    uint64_t m_limit;
    std::mutex m_mutex;
    std::condition_variable m_cv;
    std::deque<std::vector<sensor_recording::OwnedMessage>> m_queue;
    uint64_t m_queued = 0;
    bool m_closing = false;
    std::vector<std::vector<uint8_t>> m_free;
    std::thread m_thread;
    std::atomic<bool> m_failed{false};
    std::string m_error;
    bool m_finished = false;
};

}  // namespace sensorctl

#endif  // SENSORCTL_RECORDER_H
