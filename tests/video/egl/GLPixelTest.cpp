// Pixel-exact checks of the GL layer on the renderer EGL gives (Mesa's
// llvmpipe on machines without a GPU), against expectations computed on the
// CPU. Displays are simulated; the renderers and contexts are EGL's.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <random>
#include <thread>

#include "qrl/foundation/Exception.h"
#include "qrl/foundation/NotificationCenter.h"
#include "qrl/video/DisplaysProvider.h"
#include "qrl/video/OpenGLContextManager.h"
#include "qrl/video/TextureManagerImpl.h"
#include "qrl/video/VideoPlatform.h"
#include "qrl/video/egl/GLContextEGL.h"
#include "qrl/video/egl/GraphicsDevicesEGL.h"
#include "qrl/video/gl/CaptureConverter.h"
#include "qrl/video/gl/FragmentShader.h"
#include "qrl/video/gl/FrameBuffer.h"
#include "qrl/video/gl/NSOpenGLPBufferTexture.h"
#include "qrl/video/gl/OpenGLTexture.h"
#include "qrl/video/sim/DisplayServerSim.h"
#include "support/PrivateServer.h"
#include "video/VideoTestSupport.h"

// Under the thread sanitizer: Mesa's software rasterizer threads hand work
// over through Mesa's own futex-based fences, which the sanitizer cannot
// see, so it reports Mesa's objects as raced when a context is released.
// Those reports are Mesa's business, not races of ours.
extern "C" const char* __tsan_default_suppressions() { return "race:swrast_dri.so\n"; }

namespace qrl {
namespace {

class GLPixelTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string why;
        auto devices = GraphicsDevicesEGL::open(&why);
        QRL_SKIP_UNLESS(devices, "no EGL device: " + why);
        auto displays = std::make_shared<DisplayServerSim>(center_);
        displays->setDisplays({test::simDisplay(1, NSMakeRect(0, 0, 640, 480))});
        platform_ = std::make_unique<ScopedVideoPlatform>(displays, devices);
        provider_ = DisplaysProvider::create(center_);
        const Value renderer = provider_->renderIDForActiveDisplay(provider_->metadataForAllConnectedDisplays().at(0));
        manager_ = OpenGLContextManager::contextManagerForRenderer(renderer, provider_);
        ASSERT_EQ(manager_->setCurrentContext(0), kCGLNoError);
    }
    void TearDown() override {
        if (manager_) manager_->cleanUp();
        manager_.reset();
        provider_.reset();
        GLContext::clearCurrent();
    }

    TextureManager& textures() { return *manager_->textureManager(); }
    GLContext& context() { return *manager_->nsOpenGLContextAtIndex(0); }

    // A texture's pixels as 0xAARRGGBB, rows from the first uploaded.
    std::vector<uint32_t> read(const std::shared_ptr<TextureWithID>& texture, int w, int h) {
        std::vector<uint32_t> out(static_cast<size_t>(w) * h);
        auto fb = manager_->allocateFrameBuffer();
        fb->use();
        fb->bindWithTexture(texture);
        GLContext* c = manager_->lockCurrentContext();
        c->gl().glPixelStorei(GL_PACK_ROW_LENGTH, 0);
        c->gl().glReadPixels(0, 0, w, h, GL_BGRA, GL_UNSIGNED_INT_8_8_8_8_REV, out.data());
        manager_->unlockCGLContext(c);
        fb->finish();
        manager_->releaseFrameBuffer(fb.get());
        return out;
    }
    // How many of the texture's pixels differ from expected(x, y).
    int mismatches(const std::shared_ptr<TextureWithID>& texture, int w, int h,
                   const std::function<uint32_t(int, int)>& expected) {
        const auto out = read(texture, w, h);
        int wrong = 0;
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) wrong += out[y * w + x] != expected(x, y);
        return wrong;
    }

    NotificationCenter center_;
    std::unique_ptr<ScopedVideoPlatform> platform_;
    std::shared_ptr<DisplaysProvider> provider_;
    std::shared_ptr<OpenGLContextManager> manager_;
};

TEST_F(GLPixelTest, SubRectangleDrawnOneToOneThroughARectangleTexture) {
    constexpr int kW = 64, kH = 48, kOutW = 32, kOutH = 24, kX = 10, kY = 7;
    std::mt19937 rng(3);
    std::vector<uint32_t> pixels(kW * kH);
    for (auto& p : pixels) p = 0xFF000000u | (rng() & 0xFFFFFFu);  // opaque: blending keeps them
    auto source = textures().allocateNewTexture();
    source->bindTextureOfSize(NSMakeSize(kW, kH), pixels.data());
    auto target = textures().allocateNewVRAMTexture(NSMakeSize(kOutW, kOutH), false);
    auto fb = manager_->allocateFrameBuffer();

    source->bindToTextureRectangleExt();
    source->saveCurrentTextureParameters();
    // The bracket runs one lock level short after attaching (on purpose):
    // the drawing below only comes out right if its GL calls still had the context.
    fb->useAndSet2dDrawingSizeTo(NSMakeSize(kOutW, kOutH), target);
    fb->drawTextureCoordsToOriginOfFBO(NSMakeRect(kX, kY, kOutW, kOutH));
    fb->finish2dDrawingTo(source);
    EXPECT_EQ(context().getError(), GL_NO_ERROR);
    EXPECT_EQ(context().lockDepth(), 0);
    EXPECT_EQ(dynamic_cast<GLContextEGL&>(context()).bindFailures(), 0u);

    EXPECT_EQ(mismatches(target, kOutW, kOutH, [&](int x, int y) { return pixels[(y + kY) * kW + x + kX]; }), 0);
}

// 75% colour bars over the top half, a random picture below, as BGRA.
std::vector<uint8_t> testImage(int w, int h, uint32_t seed) {
    static constexpr uint8_t kBars[8][3] = {{191, 191, 191}, {191, 191, 0}, {0, 191, 191}, {0, 191, 0},
                                            {191, 0, 191},   {191, 0, 0},   {0, 0, 191},   {0, 0, 0}};
    std::mt19937 rng(seed);
    std::vector<uint8_t> out(static_cast<size_t>(w) * h * 4);
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            uint8_t* p = &out[(static_cast<size_t>(y) * w + x) * 4];
            if (y < h / 2) {
                const auto* bar = kBars[x * 8 / w];
                p[0] = bar[2], p[1] = bar[1], p[2] = bar[0];
            } else {
                p[0] = static_cast<uint8_t>(rng()), p[1] = static_cast<uint8_t>(rng()), p[2] = static_cast<uint8_t>(rng());
            }
            p[3] = 255;
        }
    }
    return out;
}

// BT.601 studio range from 8-bit RGB, chroma from the mean of each 2x2
// block (edges repeat the last row or column).
std::vector<uint8_t> reference420(const std::vector<uint8_t>& bgra, int w, int h) {
    const int cw = (w + 1) / 2, ch = (h + 1) / 2;
    std::vector<uint8_t> out(static_cast<size_t>(w) * h + 2 * static_cast<size_t>(cw) * ch);
    auto at = [&](int x, int y, int c) {
        return static_cast<double>(bgra[(static_cast<size_t>(std::min(y, h - 1)) * w + std::min(x, w - 1)) * 4 + c]);
    };
    auto clampRound = [](double v) { return static_cast<uint8_t>(std::clamp(std::lround(v), 0L, 255L)); };
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            out[static_cast<size_t>(y) * w + x] =
                clampRound(16 + (65.481 * at(x, y, 2) + 128.553 * at(x, y, 1) + 24.966 * at(x, y, 0)) / 255);
    uint8_t* cb = out.data() + static_cast<size_t>(w) * h;
    uint8_t* cr = cb + static_cast<size_t>(cw) * ch;
    for (int r = 0; r < ch; ++r) {
        for (int c = 0; c < cw; ++c) {
            double rgb[3] = {0, 0, 0};
            for (int k = 0; k < 3; ++k)
                rgb[k] = (at(2 * c, 2 * r, 2 - k) + at(2 * c + 1, 2 * r, 2 - k) + at(2 * c, 2 * r + 1, 2 - k) +
                          at(2 * c + 1, 2 * r + 1, 2 - k)) / 4;
            cb[r * cw + c] = clampRound(128 + (-37.797 * rgb[0] - 74.203 * rgb[1] + 112.0 * rgb[2]) / 255);
            cr[r * cw + c] = clampRound(128 + (112.0 * rgb[0] - 93.786 * rgb[1] - 18.214 * rgb[2]) / 255);
        }
    }
    return out;
}

int largestDifference(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
    int most = 0;
    for (size_t i = 0; i < a.size(); ++i) most = std::max(most, std::abs(int(a[i]) - int(b[i])));
    return most;
}

TEST_F(GLPixelTest, BGRAToYCbCr420WithinOneCodeOfBT601) {
    for (const auto& [w, h] : {std::pair{160, 90}, std::pair{161, 91}, std::pair{5, 3}, std::pair{30, 2}}) {
        const auto image = testImage(w, h, static_cast<uint32_t>(w * h));
        const auto expected = reference420(image, w, h);
        CaptureConverter sync(manager_, w, h);
        std::vector<uint8_t> planes(sync.planesSize());
        ASSERT_EQ(planes.size(), expected.size());
        ASSERT_TRUE(sync.convert(image.data(), static_cast<size_t>(w) * 4, planes.data()));
        EXPECT_LE(largestDifference(planes, expected), 1) << w << "x" << h;

        // A padded stride gives the same frame.
        std::vector<uint8_t> padded(static_cast<size_t>(w + 3) * 4 * h, 0xEE);
        for (int y = 0; y < h; ++y)
            std::copy_n(&image[static_cast<size_t>(y) * w * 4], w * 4, &padded[static_cast<size_t>(y) * (w + 3) * 4]);
        std::vector<uint8_t> fromPadded(sync.planesSize());
        sync.convert(padded.data(), static_cast<size_t>(w + 3) * 4, fromPadded.data());
        EXPECT_EQ(fromPadded, planes);
    }
    EXPECT_EQ(context().lockDepth(), 0);
    EXPECT_EQ(context().getError(), GL_NO_ERROR);
}

TEST_F(GLPixelTest, PixelBufferRingGivesTheSameFramesLater) {
    constexpr int kW = 96, kH = 54, kRing = 3, kFrames = 7;
    CaptureConverter sync(manager_, kW, kH);
    CaptureConverter ring(manager_, kW, kH, CaptureConverter::Transfer::PixelBufferRing, kRing);
    std::vector<std::vector<uint8_t>> expected, got;
    std::vector<uint8_t> planes(sync.planesSize());
    for (int i = 0; i < kFrames; ++i) {
        const auto image = testImage(kW, kH, static_cast<uint32_t>(100 + i));
        sync.convert(image.data(), kW * 4, planes.data());
        expected.push_back(planes);
        const bool ready = ring.convert(image.data(), kW * 4, planes.data());
        EXPECT_EQ(ready, i >= kRing - 1) << i;
        if (ready) got.push_back(planes);
    }
    while (ring.drain(planes.data())) got.push_back(planes);
    EXPECT_EQ(got, expected);
}

TEST_F(GLPixelTest, ShaderErrorsCarryTheDriversText) {
    test::expectRaise([&] { manager_->createNewFragmentShaderFromSource("void main() { gl_FragColor = vec4(1.0) }"); },
                      "Compile Error",
                      "Shared compile error: 0:1(40): error: syntax error, unexpected '}', expecting ',' or ';'\n");
    test::expectRaise([&] { manager_->createNewFragmentShaderFromSource("float halve(float x) { return x / 2.0; }"); },
                      "Link Error", "Shared link error: error: fragment shader lacks `main'\n");
    auto shader = manager_->createNewFragmentShaderFromSource(
        "uniform float used; uniform float unused; void main() { gl_FragColor = vec4(used); }");
    shader->use();
    EXPECT_NO_THROW(shader->setUniform("used", 0.5));
    test::expectRaise([&] { shader->setUniform("unused", 0.5); }, "No Uniform",
                      "Can't set uniform for unused, to float value. Uniform not found.");
    manager_->unlockCGLContext(&context());  // that raise keeps the lock
    shader->finish();
    EXPECT_NO_THROW(shader->validate());
}

TEST_F(GLPixelTest, YCbCrTexturesWithoutGLErrors) {
    auto native = textures().allocateNewVRAMTexture(NSMakeSize(64, 32), true);
    const auto storage = dynamic_cast<OpenGLTexture&>(*native).storage();
    EXPECT_TRUE(storage == TextureStorage::YCbCrNative || storage == TextureStorage::YCbCrPackedRGBA);
    EXPECT_EQ(context().getError(), GL_NO_ERROR);

    // The shader for packed Y'CbCr shows grey and the primaries as RGB.
    auto packed = textures().allocateNewTexture();
    // Cb Y0 Cr Y1: mid grey, then 75% red (Y 65, Cb 100, Cr 212).
    const std::array<uint8_t, 8> groups{128, 126, 128, 126, 100, 65, 212, 65};
    packed->bindToTextureRectangleExt();
    GLContext* c = manager_->lockCurrentContext();
    c->gl().glTexImage2D(GL_TEXTURE_RECTANGLE_EXT, 0, static_cast<GLint>(GL_RGBA8), 2, 1, 0, GL_RGBA, GL_UNSIGNED_BYTE,
                         groups.data());
    manager_->unlockCGLContext(c);
    auto shader = manager_->createNewFragmentShaderFromSource(kPackedYCbCrToRGBShaderSource);
    auto target = textures().allocateNewVRAMTexture(NSMakeSize(4, 1), false);
    auto fb = manager_->allocateFrameBuffer();
    packed->bindToTextureRectangleExt();
    packed->saveCurrentTextureParameters();
    fb->useAndSet2dDrawingSizeTo(NSMakeSize(4, 1), target);
    c = manager_->lockCurrentContext();
    c->gl().glDisable(GL_BLEND);
    packed->bindToTextureRectangleExt();
    shader->use();
    shader->setUniform("picture", int32_t{0});
    fb->drawTextureCoordsToOriginOfFBO(NSMakeRect(0, 0, 4, 1));
    shader->finish();
    manager_->unlockCGLContext(c);
    fb->finish2dDrawingTo(packed);
    const auto out = read(target, 4, 1);
    auto near = [](uint32_t px, int r, int g, int b) {
        const int pr = (px >> 16) & 0xFF, pg = (px >> 8) & 0xFF, pb = px & 0xFF;
        return std::abs(pr - r) <= 2 && std::abs(pg - g) <= 2 && std::abs(pb - b) <= 2;
    };
    const int expected[4][3] = {{128, 128, 128}, {128, 128, 128}, {191, 0, 0}, {191, 0, 0}};
    for (int i = 0; i < 4; ++i)
        EXPECT_TRUE(near(out[i], expected[i][0], expected[i][1], expected[i][2])) << i << ": " << std::hex << out[i];
}

TEST_F(GLPixelTest, PixelBufferTextureIsDrawnByItsOwnContext) {
    auto p = textures().allocateNewNSPBuffer(NSMakeSize(8, 4));
    ASSERT_TRUE(p);
    GLContext& own = *p->pixelBufferContext();
    own.lock();
    own.gl().glClearColor(0.0f, 1.0f, 0.0f, 1.0f);
    own.gl().glClear(GL_COLOR_BUFFER_BIT);
    own.unlock();
    auto target = textures().allocateNewTexture();
    target->bindToTextureRectangleExt();
    p->copyCurrentPBufferContentToContext(&context(), GL_BACK);
    EXPECT_EQ(mismatches(target, 8, 4, [](int, int) { return 0xFF00FF00u; }), 0);
    EXPECT_EQ(context().getError(), GL_NO_ERROR);
}

// Two threads take turns on one context: each turn binds it on its thread
// (no EGL_BAD_ACCESS) and GL answers there.
TEST_F(GLPixelTest, TwoThreadsTakeTurnsOnOneContext) {
    auto& egl = dynamic_cast<GLContextEGL&>(context());
    std::mutex m;
    std::condition_variable cv;
    int turn = 0;
    int answered = 0;
    constexpr int kTurns = 40;
    auto worker = [&](int parity) {
        for (int i = parity; i < kTurns; i += 2) {
            {
                std::unique_lock l(m);
                cv.wait(l, [&] { return turn == i; });
            }
            GLContext* c = manager_->lockContext(0);
            GLint max = 0;
            c->gl().glGetIntegerv(GL_MAX_TEXTURE_SIZE, &max);
            manager_->unlockCGLContext(c);
            {
                std::lock_guard l(m);
                answered += max > 0;
                ++turn;
            }
            cv.notify_all();
        }
    };
    std::thread a(worker, 0), b(worker, 1);
    a.join();
    b.join();
    EXPECT_EQ(answered, kTurns);
    EXPECT_EQ(egl.bindFailures(), 0u);
}

TEST(GLLinkage, LibraryLinksEGLOnly) {
    Dl_info info{};
    ASSERT_NE(::dladdr(reinterpret_cast<void*>(&glExtensionListHas), &info), 0);
    QRL_SKIP_UNLESS(!test::findProgram("readelf").empty(), "readelf is not installed");
    const auto out = test::Process::outputOf({"readelf", "-d", info.dli_fname});
    ASSERT_TRUE(out);
    EXPECT_NE(out->find("[libEGL.so"), std::string::npos) << *out;
    for (const char* other : {"[libGL.so", "[libOpenGL.so", "[libGLX"}) EXPECT_EQ(out->find(other), std::string::npos) << *out;
}

}  // namespace
}  // namespace qrl
