// sensorctl's argument parsers (names from the consumer library): any text gives a value within its
// limits or a usage error.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "errors.h"
#include "fuzz_input.h"
#include "image.h"
#include "names.h"
#include "numbers.h"
#include "sensor_consumer/errors.h"

namespace {

using sipc_fuzz::check;

template <typename F>
void refusedAsUsage(F&& parse) {
    try {
        parse();
    } catch (const sensorctl::UsageError&) {
    } catch (const sensor_consumer::NameError&) {  // sensor and application names: the consumer library's
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace sensorctl;
    if (size == 0) return 0;
    const std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);
    switch (data[0] % 6) {
        case 0:
            refusedAsUsage([&] { check(parseSensor(text) < kSensorCount); });
            break;
        case 1:
            refusedAsUsage([&] {
                const auto ids = parseSensorList(text);
                check(!ids.empty());
                for (size_t i = 0; i < ids.size(); ++i)
                    check(ids[i] < kSensorCount && (i == 0 || ids[i - 1] < ids[i]));
                check(parseSensorList(formatSensorList(ids)) == ids);
            });
            break;
        case 2:
            refusedAsUsage([&] { (void)appLabel(parseApp(text)); });
            break;
        case 3: {
            const uint64_t max = size > 1 ? (uint64_t{1} << (data[1] % 64)) : 0;
            refusedAsUsage([&] { check(parseUnsigned(text, max, "value") <= max); });
            break;
        }
        case 4: {
            const size_t max = size > 1 ? data[1] : 0;
            refusedAsUsage([&] {
                const auto bytes = parseHexBytes(text, max);
                check(!bytes.empty() && bytes.size() <= max);
            });
            break;
        }
        default:
            if (auto format = parsePixelFormat(text))
                check(parsePixelFormat(pixelFormatName(*format)) == format);
            break;
    }
    return 0;
}
