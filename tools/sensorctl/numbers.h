// Numbers given on the command line: decimal or 0x-prefixed hexadecimal, checked against a limit,
// and byte strings for I2C writes.
#ifndef SENSORCTL_NUMBERS_H
#define SENSORCTL_NUMBERS_H

#include <cstdint>
#include <string_view>
#include <vector>

namespace sensorctl {

// "42" or "0x2a" (no sign, no octal); throws UsageError naming `what` when malformed or above max.
uint64_t parseUnsigned(std::string_view text, uint64_t max, std::string_view what);

// Hexadecimal bytes: "01 02 ff", "01,02,0xff", "01:02:ff" or "0102ff"; throws UsageError when
// malformed, empty or longer than max bytes.
std::vector<uint8_t> parseHexBytes(std::string_view text, size_t max);

}  // namespace sensorctl

#endif  // SENSORCTL_NUMBERS_H
