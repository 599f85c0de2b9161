// Template part of the shared option helpers of command.h.
#ifndef SENSORCTL_COMMAND_OPTIONS_H
#define SENSORCTL_COMMAND_OPTIONS_H

#include <fmt/format.h>

#include <string>

#include "errors.h"
#include "sensor_consumer/errors.h"
#include "numbers.h"

namespace sensorctl {

// Turns the tool's usage errors thrown while parsing into the parser's own kind of error.
template <typename Fn>
void asValidation(Fn fn) {
    try {
        fn();
    } catch (const UsageError& e) {
        throw CLI::ValidationError(e.what());
    } catch (const sensor_consumer::NameError& e) {
        throw CLI::ValidationError(e.what());
    }
}

template <typename T>
CLI::Option* addNumberOption(CLI::App& cmd, const std::string& name, T& value, uint64_t max,
                             const std::string& description, uint64_t min) {
    const std::string what = name.substr(name.rfind(',') + 1);
    return cmd
        .add_option_function<std::string>(
            name,
            [&value, min, max, what](const std::string& text) {
                asValidation([&] {
                    const uint64_t v = parseUnsigned(text, max, what);
                    if (v < min) throw UsageError(fmt::format("{} {} is below {}", what, text, min));
                    value = static_cast<T>(v);
                });
            },
            description)
        ->type_name("N");
}

}  // namespace sensorctl

#endif  // SENSORCTL_COMMAND_OPTIONS_H
