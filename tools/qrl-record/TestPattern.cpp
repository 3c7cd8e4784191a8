#include "TestPattern.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "Planes.h"

namespace qrl::record {

namespace {

// 5x7 glyphs, one row per byte, the low five bits from left to right.
struct Glyph {
    char c;
    uint8_t rows[7];
};
constexpr Glyph kGlyphs[] = {
    {'0', {0x0e, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0e}}, {'1', {0x04, 0x0c, 0x04, 0x04, 0x04, 0x04, 0x0e}},
    {'2', {0x0e, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1f}}, {'3', {0x1f, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0e}},
    {'4', {0x02, 0x06, 0x0a, 0x12, 0x1f, 0x02, 0x02}}, {'5', {0x1f, 0x10, 0x1e, 0x01, 0x01, 0x11, 0x0e}},
    {'6', {0x06, 0x08, 0x10, 0x1e, 0x11, 0x11, 0x0e}}, {'7', {0x1f, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08}},
    {'8', {0x0e, 0x11, 0x11, 0x0e, 0x11, 0x11, 0x0e}}, {'9', {0x0e, 0x11, 0x11, 0x0f, 0x01, 0x02, 0x0c}},
    {'.', {0x00, 0x00, 0x00, 0x00, 0x00, 0x0c, 0x0c}}, {'s', {0x00, 0x00, 0x0e, 0x10, 0x0e, 0x01, 0x1e}},
    {'#', {0x0a, 0x0a, 0x1f, 0x0a, 0x1f, 0x0a, 0x0a}}, {' ', {0, 0, 0, 0, 0, 0, 0}},
};

const Glyph* glyphFor(char c) {
    for (const Glyph& g : kGlyphs)
        if (g.c == c) return &g;
    return nullptr;
}

// 75% colour bars in BT.601 studio range: white, yellow, cyan, green,
// magenta, red, blue, black.
constexpr uint8_t kBars[8][3] = {{180, 128, 128}, {162, 44, 142}, {131, 156, 44}, {112, 72, 58},
                                 {84, 184, 198},  {65, 100, 212}, {35, 212, 114}, {16, 128, 128}};

}  // namespace

TestPattern::TestPattern(int width, int height)
    : width_(width), height_(height), planes_(planesSize(width, height)) {}

void TestPattern::fillRect(int x, int y, int w, int h, uint8_t Y, uint8_t Cb, uint8_t Cr) {
    const int x0 = std::clamp(x, 0, width_), x1 = std::clamp(x + w, 0, width_);
    const int y0 = std::clamp(y, 0, height_), y1 = std::clamp(y + h, 0, height_);
    uint8_t* luma = planes_.data();
    for (int row = y0; row < y1; ++row) std::fill(luma + row * width_ + x0, luma + row * width_ + x1, Y);
    const int cw = chromaWidth(width_), ch = chromaHeight(height_);
    uint8_t* cb = luma + static_cast<size_t>(width_) * height_;
    uint8_t* cr = cb + static_cast<size_t>(cw) * ch;
    for (int row = y0 / 2; row < std::min((y1 + 1) / 2, ch); ++row) {
        const int a = x0 / 2, b = std::min((x1 + 1) / 2, cw);
        std::fill(cb + row * cw + a, cb + row * cw + b, Cb);
        std::fill(cr + row * cw + a, cr + row * cw + b, Cr);
    }
}

void TestPattern::drawText(int x, int y, int scale, const std::string& text, uint8_t Y) {
    for (char c : text) {
        if (const Glyph* g = glyphFor(c)) {
            for (int row = 0; row < 7; ++row)
                for (int col = 0; col < 5; ++col)
                    if (g->rows[row] & (0x10 >> col)) fillRect(x + col * scale, y + row * scale, scale, scale, Y, 128, 128);
        }
        x += 6 * scale;
    }
}

void TestPattern::render(uint64_t number, double seconds) {
    const int barWidth = (width_ + 7) / 8;
    for (int i = 0; i < 8; ++i) fillRect(i * barWidth, 0, barWidth, height_, kBars[i][0], kBars[i][1], kBars[i][2]);

    // A box sweeping left to right once every four seconds shows motion and
    // makes repeated or dropped frames visible.
    const int box = std::max(8, height_ / 6);
    const double phase = std::fmod(seconds, 4.0) / 4.0;
    const int bx = static_cast<int>(phase * (width_ - box));
    fillRect(bx, height_ - box - height_ / 10, box, box, 235, 128, 128);

    const int scale = std::max(1, height_ / 90);
    char label[64];
    std::snprintf(label, sizeof label, "#%06llu", static_cast<unsigned long long>(number));
    char clock[64];
    std::snprintf(clock, sizeof clock, "%9.3fs", seconds);
    const int textWidth = 6 * scale * 10 + 4 * scale;
    fillRect(0, 0, textWidth, 18 * scale + 4 * scale, 16, 128, 128);
    drawText(2 * scale, 2 * scale, scale, label, 235);
    drawText(2 * scale, 11 * scale, scale, clock, 235);
}

void TestPattern::toBGRA(std::vector<uint8_t>& out) const {
    out.resize(static_cast<size_t>(width_) * height_ * 4);
    const int cw = chromaWidth(width_), ch = chromaHeight(height_);
    const uint8_t* luma = planes_.data();
    const uint8_t* cb = luma + static_cast<size_t>(width_) * height_;
    const uint8_t* cr = cb + static_cast<size_t>(cw) * ch;
    auto to8 = [](double v) { return static_cast<uint8_t>(std::clamp(std::lround(v * 255.0), 0L, 255L)); };
    for (int y = 0; y < height_; ++y) {
        for (int x = 0; x < width_; ++x) {
            const size_t c = static_cast<size_t>(std::min(y / 2, ch - 1)) * cw + std::min(x / 2, cw - 1);
            const double Y = (luma[static_cast<size_t>(y) * width_ + x] - 16.0) / 219.0;
            const double Cb = (cb[c] - 128.0) / 224.0, Cr = (cr[c] - 128.0) / 224.0;
            uint8_t* p = &out[(static_cast<size_t>(y) * width_ + x) * 4];
            p[0] = to8(Y + 1.772 * Cb);
            p[1] = to8(Y - 0.344136 * Cb - 0.714136 * Cr);
            p[2] = to8(Y + 1.402 * Cr);
            p[3] = 255;
        }
    }
}

void convertBGRAToYCbCr420(const uint8_t* bgra, size_t stride, int width, int height, uint8_t* planes) {
    const int cw = chromaWidth(width), ch = chromaHeight(height);
    auto at = [&](int x, int y, int c) -> int {
        return bgra[static_cast<size_t>(std::min(y, height - 1)) * stride + static_cast<size_t>(std::min(x, width - 1)) * 4 + c];
    };
    auto round8 = [](double v) { return static_cast<uint8_t>(std::clamp(std::lround(v), 0L, 255L)); };
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            planes[static_cast<size_t>(y) * width + x] =
                round8(16.0 + (65.481 * at(x, y, 2) + 128.553 * at(x, y, 1) + 24.966 * at(x, y, 0)) / 255.0);
    uint8_t* cb = planes + static_cast<size_t>(width) * height;
    uint8_t* cr = cb + static_cast<size_t>(cw) * ch;
    for (int r = 0; r < ch; ++r) {
        for (int c = 0; c < cw; ++c) {
            double rgb[3];
            for (int k = 0; k < 3; ++k)
                rgb[k] = (at(2 * c, 2 * r, 2 - k) + at(2 * c + 1, 2 * r, 2 - k) + at(2 * c, 2 * r + 1, 2 - k) +
                          at(2 * c + 1, 2 * r + 1, 2 - k)) / 4.0;
            cb[static_cast<size_t>(r) * cw + c] = round8(128.0 + (-37.797 * rgb[0] - 74.203 * rgb[1] + 112.0 * rgb[2]) / 255.0);
            cr[static_cast<size_t>(r) * cw + c] = round8(128.0 + (112.0 * rgb[0] - 93.786 * rgb[1] - 18.214 * rgb[2]) / 255.0);
        }
    }
}

}  // namespace qrl::record
