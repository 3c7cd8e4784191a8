// Odd-sized pictures in 4:2:0: the converter's last chroma column and row
// average only the pixels that exist, and the movie takes frames of
// ceil(w/2) x ceil(h/2) chroma.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <stdexcept>

#include "Planes.h"
#include "TestPattern.h"
#include "Y4MWriter.h"
#include "support/TemporaryFolder.h"

using namespace qrl::record;

TEST(RecordPlanes, OddPictureKeepsItsLastColumnAndRow) {
    // Rows of 3 pixels (RGB), then 4 bytes of padding to the stride of 16.
    const uint8_t rgb[3][3][3] = {{{255, 255, 255}, {0, 0, 0}, {255, 0, 0}},
                                  {{0, 0, 0}, {255, 255, 255}, {255, 0, 0}},
                                  {{0, 0, 255}, {0, 0, 255}, {0, 255, 0}}};
    std::vector<uint8_t> bgra(16 * 3, 0xEE);
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 3; ++x)
            for (int k = 0; k < 3; ++k) bgra[y * 16 + x * 4 + k] = rgb[y][x][2 - k];
    std::vector<uint8_t> planes(planesSize(3, 3));
    ASSERT_EQ(planes.size(), 17u);
    convertBGRAToYCbCr420(bgra.data(), 16, 3, 3, planes.data());
    // White, black, red, blue, green: grey, red alone, blue alone, green alone.
    const std::vector<uint8_t> expected = {235, 16, 81, 16, 235, 81, 41, 41, 145,  // Y
                                           128, 90, 240, 54,                       // Cb
                                           128, 240, 110, 34};                     // Cr
    EXPECT_EQ(planes, expected);
}

TEST(RecordPlanes, MovieOfAnOddSizeTakesWholeFrames) {
    qrl::test::TemporaryFolder folder;
    TestPattern pattern(5, 3);
    pattern.render(1, 0.5);
    ASSERT_EQ(pattern.planes().size(), 15u + 2 * 3 * 2);
    Y4MWriter movie(folder.file("m.y4m"), 5, 3, 60, 2);
    EXPECT_THROW(movie.writeFrame(std::vector<uint8_t>(15 + 2 * 2 * 1), 1), std::runtime_error);
    movie.writeFrame(pattern.planes(), 2);
    movie.finish();
    std::ifstream in(folder.file("m.y4m"), std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(in), {}};
    const std::string frame = "FRAME\n" + std::string(pattern.planes().begin(), pattern.planes().end());
    EXPECT_EQ(bytes, "YUV4MPEG2 W5 H3 F30:1 Ip A1:1 C420jpeg\n" + frame + frame);
}
