// The simulated camera's pictures: colour bars that move on with every second, and the local time
// in the upper left corner.
#include "capture.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>
#include <vector>

#include <jpeglib.h> // wants FILE and size_t declared

namespace {

constexpr unsigned largest_side = 8192;
constexpr int quality = 80;
constexpr std::size_t components = 3;
constexpr std::size_t bars = 8;

// 3 by 5 dots each, a row in three bits: the digits, then what separates them.
constexpr std::string_view characters = "0123456789-: ";
constexpr std::array<std::array<unsigned char, 5>, 13> dots{{
    {7, 5, 5, 5, 7},
    {2, 6, 2, 2, 7},
    {7, 1, 7, 4, 7},
    {7, 1, 7, 1, 7},
    {5, 5, 7, 1, 1},
    {7, 4, 7, 1, 7},
    {7, 4, 7, 5, 7},
    {7, 1, 1, 1, 1},
    {7, 5, 7, 5, 7},
    {7, 5, 7, 1, 7},
    {0, 0, 7, 0, 0},
    {0, 2, 0, 2, 0},
    {0, 0, 0, 0, 0},
}};
constexpr std::size_t glyph_width = 4; // with the gap
constexpr std::size_t glyph_height = 5;

struct picture {
    std::size_t width;
    std::size_t height;
    std::vector<unsigned char> pixels; // red, green, blue
};

void set(picture &target, std::size_t x, std::size_t y, unsigned rgb) {
    unsigned char *pixel = &target.pixels[(y * target.width + x) * components];
    pixel[0] = static_cast<unsigned char>(rgb >> 16);
    pixel[1] = static_cast<unsigned char>(rgb >> 8);
    pixel[2] = static_cast<unsigned char>(rgb);
}

void draw_bars(picture &target, std::time_t now) {
    static constexpr unsigned colours[bars] = {0xC0C0C0, 0xC0C000, 0x00C0C0, 0x00C000,
                                               0xC000C0, 0xC00000, 0x0000C0, 0x202020};
    const std::size_t shift = static_cast<std::size_t>(now) * 8 % target.width;
    for (std::size_t x = 0; x < target.width; ++x) {
        const unsigned colour = colours[(x + shift) % target.width * bars / target.width];
        for (std::size_t y = 0; y < target.height; ++y) {
            set(target, x, y, colour);
        }
    }
}

void draw_text(picture &target, std::string_view text) {
    const std::size_t scale = target.width / (glyph_width * (text.size() + 2) * 2);
    if (scale == 0 || target.height < (glyph_height + 2) * scale) {
        return; // too small to be read
    }
    for (std::size_t y = 0; y < (glyph_height + 2) * scale; ++y) {
        for (std::size_t x = 0; x < (glyph_width * text.size() + 2) * scale; ++x) {
            const std::size_t column = x / scale;
            const std::size_t row = y / scale;
            bool is_dot = false;
            if (column >= 1 && row >= 1 && row <= glyph_height &&
                (column - 1) / glyph_width < text.size()) {
                const std::size_t glyph = characters.find(text[(column - 1) / glyph_width]);
                is_dot = glyph != std::string_view::npos && (column - 1) % glyph_width < 3 &&
                         (dots[glyph][row - 1] >> (2 - (column - 1) % glyph_width) & 1) != 0;
            }
            set(target, x, y, is_dot ? 0xFFFFFF : 0x000000);
        }
    }
}

std::vector<unsigned char> encode(picture &source) {
    jpeg_compress_struct encoder{};
    jpeg_error_mgr errors{};
    encoder.err = jpeg_std_error(&errors);
    jpeg_create_compress(&encoder);
    unsigned char *bytes = nullptr;
    unsigned long size = 0;
    jpeg_mem_dest(&encoder, &bytes, &size);
    encoder.image_width = static_cast<JDIMENSION>(source.width);
    encoder.image_height = static_cast<JDIMENSION>(source.height);
    encoder.input_components = static_cast<int>(components);
    encoder.in_color_space = JCS_RGB;
    jpeg_set_defaults(&encoder);
    jpeg_set_quality(&encoder, quality, TRUE);
    jpeg_start_compress(&encoder, TRUE);
    while (encoder.next_scanline < encoder.image_height) {
        JSAMPROW row = &source.pixels[encoder.next_scanline * source.width * components];
        jpeg_write_scanlines(&encoder, &row, 1);
    }
    jpeg_finish_compress(&encoder);
    jpeg_destroy_compress(&encoder);
    std::vector<unsigned char> result(bytes, bytes + size);
    std::free(bytes); // the encoder's own
    return result;
}

} // namespace

struct CaptureStream {
    std::size_t width;
    std::size_t height;
};

struct CaptureFrame {
    std::vector<unsigned char> bytes;
};

CaptureStream *capture_open_stream(const char *media_type, const char *properties) {
    unsigned width = 0;
    unsigned height = 0;
    if (media_type == nullptr || std::strcmp(media_type, "image/jpeg") != 0 ||
        properties == nullptr ||
        std::sscanf(properties, "resolution=%5ux%5u", &width, &height) != 2 || width == 0 ||
        height == 0 || width > largest_side || height > largest_side) {
        return nullptr;
    }
    return new CaptureStream{width, height};
}

CaptureFrame *capture_get_frame(CaptureStream *stream) {
    if (stream == nullptr) {
        return nullptr;
    }
    picture image{stream->width, stream->height,
                  std::vector<unsigned char>(stream->width * stream->height * components)};
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    draw_bars(image, now);
    draw_text(image, text);
    return new CaptureFrame{encode(image)};
}

void *capture_frame_data(CaptureFrame *frame) {
    return frame == nullptr ? nullptr : frame->bytes.data();
}

size_t capture_frame_size(CaptureFrame *frame) {
    return frame == nullptr ? 0 : frame->bytes.size();
}

void capture_frame_free(CaptureFrame *frame) {
    delete frame;
}

void capture_close_stream(CaptureStream *stream) {
    delete stream;
}
