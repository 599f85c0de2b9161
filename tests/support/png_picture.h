// PNG files that tools under test wrote, read back as 8-bit RGB with libpng (tests that link PNG::PNG).
#ifndef SIPC_TESTS_PNG_PICTURE_H
#define SIPC_TESTS_PNG_PICTURE_H

#include <gtest/gtest.h>
#include <png.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <vector>

namespace sipc_test {

struct Picture {
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t format = 0;       // as stored: PNG_FORMAT_FLAG_COLOR, PNG_FORMAT_FLAG_LINEAR (16 bits)...
    std::vector<uint8_t> rgb;  // 8-bit RGB pixels
};

// The picture, or a test failure naming the file.
inline std::optional<Picture> readPng(const std::filesystem::path& path) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    if (png_image_begin_read_from_file(&image, path.c_str()) == 0) {
        ADD_FAILURE() << "cannot read " << path;
        return std::nullopt;
    }
    Picture picture{image.width, image.height, image.format, {}};
    image.format = PNG_FORMAT_RGB;
    picture.rgb.resize(PNG_IMAGE_SIZE(image));
    if (png_image_finish_read(&image, nullptr, picture.rgb.data(), 0, nullptr) == 0) {
        ADD_FAILURE() << "cannot decode " << path;
        return std::nullopt;
    }
    return picture;
}

}  // namespace sipc_test

#endif  // SIPC_TESTS_PNG_PICTURE_H
