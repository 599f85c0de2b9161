// info: what an MCAP recording holds (channels, messages, duration, sensors, gaps by frame counter),
// read through the whole file so that every CRC is checked on the way.
#include <fmt/format.h>

#include <map>
#include <nlohmann/json.hpp>

#include "command.h"
#include "errors.h"
#include "sensor_recording/frame_message.h"
#include "sensor_recording/mcap.h"

namespace sensorctl {
namespace {

struct ChannelTally {
    uint64_t messages = 0;
    uint64_t bytes = 0;
    uint32_t firstCounter = 0;
    uint32_t lastCounter = 0;
    uint64_t gaps = 0;        // counters missing between consecutive messages
    uint64_t outOfOrder = 0;  // counters that repeated or went back
    uint64_t firstNs = 0, lastNs = 0;
    std::string image;        // "1920x1080 nv12" of the first message, or why it does not decode
};

class InfoCommand : public Command {
public:
    CLI::App* configure(CLI::App& parent) override {
        CLI::App* cmd = parent.add_subcommand(
            "info", "Show what an MCAP recording holds: channels, messages, duration, sensors, gaps by counter");
        cmd->add_option("file", m_file, "The recording (FILE.mcap)")->required();
        cmd->add_flag("--json", m_json, "Print it as JSON");
        return cmd;
    }

    int run(Output& io) override {
        std::string error;
        auto reader = sensor_recording::McapReader::openFile(m_file, &error);
        if (!reader) throw IoError(error);
        std::map<uint16_t, ChannelTally> tallies;
        const bool ok = reader->read([&](const sensor_recording::Message& m) {
            ChannelTally& t = tallies[m.channelId];
            if (t.messages == 0) {
                t.firstCounter = m.sequence;
                t.firstNs = m.logTimeNs;
                sensor_recording::DecodedImage image;
                std::string why;
                t.image = sensor_recording::decodeImage(m.data, m.size, image, why)
                              ? fmt::format("{}x{} {}", image.header.geometry.width,
                                            image.header.geometry.height, image.encoding)
                              : why;
            } else if (m.sequence > t.lastCounter) {
                t.gaps += m.sequence - t.lastCounter - 1;
            } else {
                ++t.outOfOrder;
            }
            t.lastCounter = m.sequence;
            t.lastNs = std::max(t.lastNs, m.logTimeNs);
            ++t.messages;
            t.bytes += m.size;
            return true;
        });
        if (!ok) throw IoError(fmt::format("{}: {}", m_file, reader->error()));

        uint64_t first = UINT64_MAX, last = 0, messages = 0;
        for (const auto& [id, t] : tallies) {
            first = std::min(first, t.firstNs);
            last = std::max(last, t.lastNs);
            messages += t.messages;
        }
        const double seconds = messages == 0 ? 0.0 : double(last - first) / 1e9;
        const std::string state =
            reader->complete() ? "complete"
                               : fmt::format("without its end (cut short at offset {}): read up to its last whole record",
                                             reader->truncatedAt().value_or(0));
        if (m_json) {
            nlohmann::ordered_json channels = nlohmann::ordered_json::array();
            for (const auto& [id, c] : reader->channels()) {
                const ChannelTally t = tallies.count(id) ? tallies.at(id) : ChannelTally{};
                nlohmann::ordered_json meta = nlohmann::ordered_json::object();
                for (const auto& [k, v] : c.metadata) meta[k] = v;
                channels.push_back({{"id", id},
                                    {"topic", c.topic},
                                    {"messages", t.messages},
                                    {"bytes", t.bytes},
                                    {"firstCounter", t.firstCounter},
                                    {"lastCounter", t.lastCounter},
                                    {"gaps", t.gaps},
                                    {"outOfOrder", t.outOfOrder},
                                    {"image", t.image},
                                    {"metadata", meta}});
            }
            nlohmann::ordered_json metadata = nlohmann::ordered_json::object();
            for (const auto& m : reader->metadata()) metadata[m.name] = m.values;
            nlohmann::ordered_json doc = {{"file", m_file},
                                          {"complete", reader->complete()},
                                          {"library", reader->library()},
                                          {"profile", reader->profile()},
                                          {"chunks", reader->chunks()},
                                          {"messages", messages},
                                          {"seconds", seconds},
                                          {"channels", channels},
                                          {"metadata", metadata}};
            io.out.write(doc.dump(2) + "\n");
            return kExitOk;
        }
        std::string text = fmt::format("{}: {}\nwritten by {} (profile {}), {} chunks, {} messages over {:.3f} s\n",
                                        m_file, state, reader->library(), reader->profile(), reader->chunks(),
                                        messages, seconds);
        text += fmt::format("{:>3} {:<24} {:>9} {:>11} {:>11} {:>6} {:>6}  {}\n", "CH", "TOPIC", "MESSAGES",
                            "FIRST_CNT", "LAST_CNT", "GAPS", "OOO", "IMAGE");
        for (const auto& [id, c] : reader->channels()) {
            const ChannelTally t = tallies.count(id) ? tallies.at(id) : ChannelTally{};
            text += fmt::format("{:>3} {:<24} {:>9} {:>11} {:>11} {:>6} {:>6}  {}\n", id, c.topic, t.messages,
                                t.firstCounter, t.lastCounter, t.gaps, t.outOfOrder, t.image);
        }
        for (const auto& m : reader->metadata()) {
            text += fmt::format("metadata {}:", m.name);
            for (const auto& [k, v] : m.values) text += fmt::format(" {}={}", k, v);
            text += "\n";
        }
        io.out.write(text);
        return kExitOk;
    }

private:
    std::string m_file;
    bool m_json = false;
};

}  // namespace

std::unique_ptr<Command> makeInfoCommand() {
    return std::make_unique<InfoCommand>();
}

}  // namespace sensorctl
