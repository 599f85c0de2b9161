// Stream counters: loss by frame counter.
#include "sensor_consumer/counters.h"

namespace sensor_consumer {

bool FrameCounters::onFrame(uint32_t frameCnt, uint64_t atUs, uint64_t getUs, uint64_t holdUs) {
    bool discontinuous = false;
    if (m_lastCnt) {
        // Unsigned distance, so that a counter wrapping from 2^32-1 to 0 counts as the next frame.
        const uint32_t step = frameCnt - *m_lastCnt;
        if (step == 0 || step >= 0x80000000u) {
            ++m_outOfOrder;
            discontinuous = true;
        } else if (step > 1) {
            m_gaps += step - 1;
            discontinuous = true;
        }
    } else {
        m_firstUs = atUs;
    }
    if (discontinuous) ++m_discontinuities;
    m_lastCnt = frameCnt;
    m_lastUs = atUs;
    ++m_frames;
    m_getUs += getUs;
    m_holdUs += holdUs;
    return discontinuous;
}

double FrameCounters::fps() const {
    if (m_frames < 2 || m_lastUs <= m_firstUs) return 0.0;
    return double(m_frames - 1) * 1e6 / double(m_lastUs - m_firstUs);
}

}  // namespace sensor_consumer
