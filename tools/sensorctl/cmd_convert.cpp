// convert: one frame of a dump file to PNG. The geometry comes from the options, else from the JSON
// sidecar written by dump, else from the library's file name and the kind of sensor.
#include <filesystem>
#include <fstream>

#include "command.h"
#include "dump_geometry.h"
#include "errors.h"
#include "image.h"
#include "names.h"
#include "png_file.h"

namespace sensorctl {
namespace {

namespace fs = std::filesystem;

class ConvertCommand : public Command {
public:
    CLI::App* configure(CLI::App& parent) override {
        CLI::App* cmd = parent.add_subcommand(
            "convert",
            "Convert a frame of a dump file to PNG: 4:2:0 YUV to RGB, Bayer RGGB demosaiced to RGB, "
            "8- and 16-bit single planes to grey");
        cmd->add_option("files", m_files, "Dump files (client_cam_S_F_W_X_H.yuv/.raw, with or without APP_)")
            ->required()
            ->type_name("FILE");
        cmd->add_option("-o,--output", m_output, "PNG file (one input only; default FILE.png)")
            ->type_name("PNG");
        addNumberOption(*cmd, "--frame", m_frame, 1000000, "Frame K of a file holding several (default 0)");
        addNumberOption(*cmd, "--width", m_width, 32768, "Image width, for files without a dump name", 1);
        addNumberOption(*cmd, "--height", m_height, 32768, "Image height, for files without a dump name", 1);
        cmd->add_option("--format", m_format, "Layout: nv12, nv21, rggb16, gray8, gray16")
            ->check(CLI::IsMember({"nv12", "nv21", "rggb16", "gray8", "gray16"}));
        cmd->add_option("--range", m_range, "YUV range: limited (16-235, default) or full")
            ->check(CLI::IsMember({"limited", "full"}));
        addNumberOption(*cmd, "--bayer-bits", m_bayerBits, 16,
                        "Significant bits of Bayer samples, 8-16 (default 12)", 8);
        return cmd;
    }

    int run(Output& io) override {
        if (!m_output.empty() && m_files.size() != 1) throw UsageError("--output takes one input file");
        for (const std::string& file : m_files)
            convert(io, file, m_output.empty() ? file + ".png" : m_output);
        return kExitOk;
    }

private:
    void convert(Output& io, const std::string& file, const std::string& output) {
        Geometry g = fromSidecar(file);
        if (g.source.empty()) g = fromName(file);
        if (m_width) g.width = m_width;
        if (m_height) g.height = m_height;
        if (!m_format.empty()) g.format = parsePixelFormat(m_format);
        if (!g.width || !g.height || !g.format) {
            throw UsageError(
                fmt::format("cannot tell the {} of {} ({}); give --width, --height and --format",
                            !g.format && g.width ? "format" : "geometry", file,
                            g.source.empty() ? "not a dump file name and no sidecar" : "from " + g.source));
        }
        const uint64_t bytes = frameBytes(*g.format, *g.width, *g.height);
        std::error_code ec;
        const uint64_t size = fs::file_size(file, ec);
        if (ec) throw IoError(fmt::format("cannot read {}: {}", file, ec.message()));
        const uint64_t frames = size / bytes;
        if (uint64_t(m_frame) >= frames) {
            throw IoError(fmt::format(
                "{} is too short: {} bytes hold {} whole frame(s) of {} bytes ({} {}x{}); "
                "frame {} is missing",
                file, size, frames, bytes, pixelFormatName(*g.format), *g.width, *g.height, m_frame));
        }
        if (size % bytes != 0) {
            io.err.print("sensorctl: {}: {} bytes after the last whole frame are ignored\n", file,
                         size % bytes);
        }
        std::vector<uint8_t> data(bytes);
        std::ifstream in(file, std::ios::binary);
        in.seekg(static_cast<std::streamoff>(uint64_t(m_frame) * bytes));
        in.read(reinterpret_cast<char*>(data.data()), static_cast<std::streamsize>(bytes));
        if (!in || uint64_t(in.gcount()) != bytes)
            throw IoError(fmt::format("cannot read frame {} of {}", m_frame, file));
        const Image image = convertFrame(data.data(), *g.format, *g.width, *g.height,
                                         m_range == "full" ? YuvRange::Full : YuvRange::Limited, m_bayerBits);
        writePng(output, image);
        io.out.print("{} -> {}  ({} {}x{}, frame {} of {})\n", file, output, pixelFormatName(*g.format),
                     *g.width, *g.height, m_frame, frames);
    }

    std::vector<std::string> m_files;
    std::string m_output;
    uint32_t m_frame = 0;
    uint32_t m_width = 0;
    uint32_t m_height = 0;
    std::string m_format;
    std::string m_range = "limited";
    uint32_t m_bayerBits = 12;
};

}  // namespace

std::unique_ptr<Command> makeConvertCommand() {
    return std::make_unique<ConvertCommand>();
}

}  // namespace sensorctl
