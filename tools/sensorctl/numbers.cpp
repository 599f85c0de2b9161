// Command-line numbers and byte strings.
#include "numbers.h"

#include <fmt/format.h>

#include <cctype>
#include <charconv>

#include "errors.h"

namespace sensorctl {

uint64_t parseUnsigned(std::string_view text, uint64_t max, std::string_view what) {
    std::string_view digits = text;
    int base = 10;
    if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) {
        digits.remove_prefix(2);
        base = 16;
    }
    uint64_t value = 0;
    auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), value, base);
    if (digits.empty() || ec == std::errc::invalid_argument || end != digits.data() + digits.size()) {
        throw UsageError(
            fmt::format("{} '{}' is not a number (decimal, or hexadecimal with 0x)", what, text));
    }
    if (ec == std::errc::result_out_of_range || value > max) {
        throw UsageError(fmt::format("{} {} is out of range (0-{:#x})", what, text, max));
    }
    return value;
}

std::vector<uint8_t> parseHexBytes(std::string_view text, size_t max) {
    std::vector<uint8_t> bytes;
    auto isSeparator = [](char c) {
        return c == ',' || c == ':' || std::isspace(static_cast<unsigned char>(c));
    };
    size_t i = 0;
    while (i < text.size()) {
        if (isSeparator(text[i])) {
            ++i;
            continue;
        }
        size_t end = i;
        while (end < text.size() && !isSeparator(text[end])) ++end;
        std::string_view token = text.substr(i, end - i);
        if (token.size() > 2 && token[0] == '0' && (token[1] == 'x' || token[1] == 'X'))
            token.remove_prefix(2);
        // A run of digits without separators is read two digits per byte.
        if (token.size() % 2 != 0) {
            throw UsageError(fmt::format("I2C data '{}': '{}' is not a whole number of hexadecimal bytes",
                                         text, text.substr(i, end - i)));
        }
        for (size_t k = 0; k < token.size(); k += 2) {
            uint8_t byte = 0;
            auto [p, ec] = std::from_chars(token.data() + k, token.data() + k + 2, byte, 16);
            if (ec != std::errc() || p != token.data() + k + 2) {
                throw UsageError(
                    fmt::format("I2C data '{}': '{}' is not hexadecimal", text, token.substr(k, 2)));
            }
            bytes.push_back(byte);
        }
        i = end;
    }
    if (bytes.empty()) throw UsageError("I2C data is empty");
    if (bytes.size() > max)
        throw UsageError(fmt::format("I2C data holds {} bytes; at most {}", bytes.size(), max));
    return bytes;
}

}  // namespace sensorctl
