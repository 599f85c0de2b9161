// What the fuzz targets share: reading the fuzzer's bytes as values, and failing a property.
#ifndef SIPC_FUZZ_INPUT_H
#define SIPC_FUZZ_INPUT_H

#include <cstddef>
#include <cstdint>
#include <algorithm>
#include <cstdlib>
#include <string>

namespace sipc_fuzz {

// Reads the fuzzer's bytes in order; past the end every value is zero.
class Bytes {
public:
    Bytes(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}
    uint32_t u8() { return m_pos < m_size ? m_data[m_pos++] : 0; }
    uint32_t u16() { return u8() | (u8() << 8); }
    bool more() const { return m_pos < m_size; }
    // The next `count` bytes, or fewer at the end.
    std::string take(size_t count) {
        count = std::min(count, m_size - m_pos);
        std::string out(reinterpret_cast<const char*>(m_data) + m_pos, count);
        m_pos += count;
        return out;
    }
    std::string rest() {
        std::string out(reinterpret_cast<const char*>(m_data) + m_pos, m_size - m_pos);
        m_pos = m_size;
        return out;
    }

private:
    const uint8_t* m_data;
    size_t m_size;
    size_t m_pos = 0;
};

// A failed property is a finding like a crash: the fuzzer keeps the input.
inline void check(bool ok) {
    if (!ok) std::abort();
}

}  // namespace sipc_fuzz

#endif  // SIPC_FUZZ_INPUT_H
