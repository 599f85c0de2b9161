// The encoding of sensor-simd's messages: a message is a struct that lists its fields once
// (SENSOR_SIM_FIELDS), and one writer and one strict reader walk those fields, so no message is ever
// marshalled by hand. Integers are little-endian in their own width, bools one byte (0 or 1), strings and
// vectors a u32 count and their elements, arrays and nested structs their elements in order.
//
// On the socket a message is an 8-byte header (u32 body length, u16 type, u16 zero) and its body. Each
// message type bounds its body (kMaxBytes), so a reader refuses an oversized message from its header alone.
#ifndef SENSOR_SIM_INTERNAL_CODEC_H
#define SENSOR_SIM_INTERNAL_CODEC_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

// Declares a message's fields, in wire order.
#define SENSOR_SIM_FIELDS(...)                   \
    auto tie() { return std::tie(__VA_ARGS__); } \
    auto tie() const { return std::tie(__VA_ARGS__); }

namespace sensor_sim {
namespace codec {

constexpr size_t kHeaderBytes = 8;
constexpr uint32_t kDefaultMaxBytes = 512;

template <typename T, typename = void>
struct HasTie : std::false_type {};
template <typename T>
struct HasTie<T, std::void_t<decltype(std::declval<T&>().tie())>> : std::true_type {};

template <typename T>
struct IsVector : std::false_type {};
template <typename T>
struct IsVector<std::vector<T>> : std::true_type {};
template <typename T>
struct IsArray : std::false_type {};
template <typename T, size_t N>
struct IsArray<std::array<T, N>> : std::true_type {};

// The fields of a struct: its own tie(), or a fieldsOf() overload for structs declared elsewhere.
template <typename T>
auto fields(T& value) {
    if constexpr (HasTie<T>::value) {
        return value.tie();
    } else {
        return fieldsOf(value);
    }
}

class Writer {
public:
    template <typename T>
    void operator()(const T& value) {
        if constexpr (std::is_same_v<T, bool>) {
            m_out.push_back(value ? 1 : 0);
        } else if constexpr (std::is_arithmetic_v<T> || std::is_enum_v<T>) {
            const size_t at = m_out.size();
            m_out.resize(at + sizeof value);
            std::memcpy(m_out.data() + at, &value, sizeof value);
        } else if constexpr (std::is_same_v<T, std::string>) {
            (*this)(static_cast<uint32_t>(value.size()));
            m_out.insert(m_out.end(), value.begin(), value.end());
        } else if constexpr (IsVector<T>::value) {
            (*this)(static_cast<uint32_t>(value.size()));
            for (const auto& v : value) (*this)(v);
        } else if constexpr (IsArray<T>::value) {
            for (const auto& v : value) (*this)(v);
        } else {
            std::apply([this](const auto&... f) { ((*this)(f), ...); }, fields(value));
        }
    }
    std::vector<uint8_t>& bytes() { return m_out; }

private:
    std::vector<uint8_t> m_out;
};

// Reads fields from a body; any shortfall or impossible value sets !ok() for good. A count is checked
// against the bytes left before anything is allocated, so a body can never make the reader allocate
// more than its own size.
class Reader {
public:
    Reader(const uint8_t* data, size_t size) : m_data(data), m_left(size) {}
    template <typename T>
    void operator()(T& value) {
        if (!m_ok) return;
        if constexpr (std::is_same_v<T, bool>) {
            uint8_t b = 0;
            (*this)(b);
            if (b > 1) m_ok = false;
            value = b != 0;
        } else if constexpr (std::is_arithmetic_v<T> || std::is_enum_v<T>) {
            if (m_left < sizeof value) {
                m_ok = false;
                return;
            }
            std::memcpy(&value, m_data, sizeof value);
            m_data += sizeof value;
            m_left -= sizeof value;
        } else if constexpr (std::is_same_v<T, std::string>) {
            uint32_t count = 0;
            (*this)(count);
            if (!m_ok || count > m_left) {
                m_ok = false;
                return;
            }
            value.assign(reinterpret_cast<const char*>(m_data), count);
            m_data += count;
            m_left -= count;
        } else if constexpr (IsVector<T>::value) {
            uint32_t count = 0;
            (*this)(count);
            // Every element takes at least one byte.
            if (!m_ok || count > m_left) {
                m_ok = false;
                return;
            }
            value.clear();
            value.resize(count);
            for (auto& v : value) (*this)(v);
        } else if constexpr (IsArray<T>::value) {
            for (auto& v : value) (*this)(v);
        } else {
            std::apply([this](auto&... f) { ((*this)(f), ...); }, fields(value));
        }
    }
    bool ok() const { return m_ok; }
    bool done() const { return m_ok && m_left == 0; }

private:
    const uint8_t* m_data;
    size_t m_left;
    bool m_ok = true;
};

// --- Per-message properties, each with a default ---------------------------------------------------

template <typename M, typename = void>
struct MaxBytes : std::integral_constant<uint32_t, kDefaultMaxBytes> {};
template <typename M>
struct MaxBytes<M, std::void_t<decltype(M::kMaxBytes)>> : std::integral_constant<uint32_t, M::kMaxBytes> {};

template <typename M, typename = void>
struct CarriesFd : std::false_type {};
template <typename M>
struct CarriesFd<M, std::void_t<decltype(M::kCarriesFd)>> : std::bool_constant<M::kCarriesFd> {};

// Ranges a decoded message must respect beyond its encoding (names, ids, enums).
template <typename M, typename = void>
struct HasValid : std::false_type {};
template <typename M>
struct HasValid<M, std::void_t<decltype(std::declval<const M&>().valid())>> : std::true_type {};

template <typename M>
bool valid(const M& m) {
    if constexpr (HasValid<M>::value) {
        return m.valid();
    } else {
        return true;
    }
}

// --- Message sets: a variant whose alternatives are numbered from a base ---------------------------

template <typename T, typename V>
struct IndexIn;
template <typename T, typename... Ts>
struct IndexIn<T, std::variant<Ts...>> {
    static constexpr size_t value = [] {
        constexpr bool same[] = {std::is_same_v<T, Ts>...};
        for (size_t i = 0; i < sizeof...(Ts); ++i) {
            if (same[i]) return i;
        }
        return sizeof...(Ts);
    }();
    static_assert(value < sizeof...(Ts), "not a message of this set");
};

// A message's body alone (the control page carries a frame's answer this way).
template <typename M>
std::vector<uint8_t> encodeBody(const M& message) {
    Writer w;
    w(message);
    return std::move(w.bytes());
}

// A whole body decoded, exactly, and valid.
template <typename M>
bool decodeBody(const uint8_t* data, size_t size, M* out) {
    Reader r(data, size);
    M m;
    r(m);
    if (!r.done() || !valid(m)) return false;
    *out = std::move(m);
    return true;
}

struct Header {
    uint32_t length = 0;
    uint16_t type = 0;
};

enum class Decoded { Complete, Incomplete, Malformed };

// A set of messages (a std::variant) whose types are numbered on the wire from Base.
template <typename Set, uint16_t Base>
struct Messages {
    static constexpr size_t kCount = std::variant_size_v<Set>;

    template <typename M>
    static constexpr uint16_t typeOf() {
        return static_cast<uint16_t>(Base + IndexIn<M, Set>::value);
    }
    static bool known(uint16_t type) { return type >= Base && type < Base + kCount; }
    static uint32_t maxBytes(uint16_t type) { return maxBytesAt(type - Base, std::make_index_sequence<kCount>{}); }
    static bool carriesFd(uint16_t type) { return carriesFdAt(type - Base, std::make_index_sequence<kCount>{}); }

    template <typename M>
    static std::vector<uint8_t> encode(const M& message) {
        std::vector<uint8_t> out(kHeaderBytes);
        Writer w;
        w(message);
        const auto& body = w.bytes();
        const uint32_t length = static_cast<uint32_t>(body.size());
        const uint16_t type = typeOf<M>(), zero = 0;
        std::memcpy(out.data(), &length, 4);
        std::memcpy(out.data() + 4, &type, 2);
        std::memcpy(out.data() + 6, &zero, 2);
        out.insert(out.end(), body.begin(), body.end());
        return out;
    }

    // The header at the front of `data`: Incomplete before 8 bytes, Malformed for a type of another set,
    // a body over the type's bound, or a non-zero reserved field. Needs nothing but the header, so an
    // oversized message is refused before its body is read.
    static Decoded header(const uint8_t* data, size_t size, Header* out) {
        if (size < kHeaderBytes) return Decoded::Incomplete;
        uint16_t reserved;
        std::memcpy(&out->length, data, 4);
        std::memcpy(&out->type, data + 4, 2);
        std::memcpy(&reserved, data + 6, 2);
        if (!known(out->type) || reserved != 0 || out->length > maxBytes(out->type)) return Decoded::Malformed;
        return Decoded::Complete;
    }

    // One message from the front of `data`; `*used` is its length when Complete.
    static Decoded decode(const uint8_t* data, size_t size, Set* out, size_t* used) {
        Header h;
        const Decoded d = header(data, size, &h);
        if (d != Decoded::Complete) return d;
        if (size - kHeaderBytes < h.length) return Decoded::Incomplete;
        if (!decodeAt(h.type - Base, data + kHeaderBytes, h.length, out, std::make_index_sequence<kCount>{}))
            return Decoded::Malformed;
        *used = kHeaderBytes + h.length;
        return Decoded::Complete;
    }

private:
    template <size_t... I>
    static uint32_t maxBytesAt(size_t index, std::index_sequence<I...>) {
        constexpr uint32_t bounds[] = {MaxBytes<std::variant_alternative_t<I, Set>>::value...};
        return bounds[index];
    }
    template <size_t... I>
    static bool carriesFdAt(size_t index, std::index_sequence<I...>) {
        constexpr bool fds[] = {CarriesFd<std::variant_alternative_t<I, Set>>::value...};
        return fds[index];
    }
    template <size_t... I>
    static bool decodeAt(size_t index, const uint8_t* body, size_t length, Set* out, std::index_sequence<I...>) {
        bool ok = false;
        ((index == I ? (ok = decodeOne<std::variant_alternative_t<I, Set>>(body, length, out)) : false), ...);
        return ok;
    }
    template <typename M>
    static bool decodeOne(const uint8_t* body, size_t length, Set* out) {
        M m;
        if (!decodeBody(body, length, &m)) return false;
        *out = std::move(m);
        return true;
    }
};

}  // namespace codec
}  // namespace sensor_sim

#endif  // SENSOR_SIM_INTERNAL_CODEC_H
