// Shared set-up of the GL tests on the fake: two displays on one simulated
// renderer, a display provider of the test's own, and a context manager for
// that renderer whose contexts are the fake's.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "qrl/video/DisplaysProvider.h"
#include "qrl/video/OpenGLContextManager.h"
#include "qrl/video/sim/SimGLContext.h"
#include "video/VideoTestSupport.h"

namespace qrl::test {

inline constexpr int32_t kRenderer = 0x1000;

class SimGLFixture : public SimVideoFixture {
protected:
    void SetUp() override {
        additionalApplicationLogLevel = additionalApplicationLogLevel.load() | kLoggingOpenGL;
        displays_->setDisplays({simDisplay(1, NSMakeRect(0, 0, 1440, 900)), simDisplay(2, NSMakeRect(1440, 0, 1280, 1024))});
        renderers_->setRenderers({renderer()});
        provider_ = DisplaysProvider::create(center_);
    }
    void TearDown() override {
        if (manager_) manager_->cleanUp();
        manager_.reset();
        provider_.reset();
        GLContext::clearCurrent();
    }
    // The renderer the fixture installs.
    static SimRenderer renderer() { return simRenderer(kRenderer, 1, true, "Fake Card"); }
    // Installs that renderer changed by `change`, and starts the manager over.
    void useRenderer(const std::function<void(SimRenderer&)>& change) {
        SimRenderer r = renderer();
        change(r);
        renderers_->setRenderers({r});
        provider_->refreshCachedDisplays();
        if (manager_) manager_->cleanUp();
        manager_.reset();
    }

    OpenGLContextManager& manager(bool fullScreen = true) {
        if (!manager_) manager_ = OpenGLContextManager::contextManagerForRenderer(Value(kRenderer), fullScreen, provider_);
        return *manager_;
    }
    // The manager with context `index` selected.
    OpenGLContextManager& selected(int32_t index = 0) {
        EXPECT_EQ(manager().setCurrentContext(index), kCGLNoError);
        return *manager_;
    }
    SimGLContext& sim(int32_t index = 0) {
        auto* c = dynamic_cast<SimGLContext*>(manager().nsOpenGLContextAtIndex(index).get());
        EXPECT_NE(c, nullptr);
        return *c;
    }

    std::shared_ptr<DisplaysProvider> provider_;
    std::shared_ptr<OpenGLContextManager> manager_;
};

}  // namespace qrl::test
