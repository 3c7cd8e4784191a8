// Shared set-up of the GL tests on the fake: two displays on one simulated
// renderer, a display provider of the test's own, and a context manager for
// that renderer whose contexts are the fake's.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "qrl/foundation/Exception.h"
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
    // The renderer the fixture installs; tests override fields through `tweak`.
    virtual SimRenderer renderer() { return simRenderer(kRenderer, 1, true, "Fake Card"); }
    void useRenderer(const SimRenderer& r) {
        renderers_->setRenderers({r});
        provider_->refreshCachedDisplays();
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
    // Entries of the journal whose text starts with one of the prefixes, in order.
    static std::vector<std::string> calls(const SimGLContext& c, std::initializer_list<std::string> prefixes) {
        std::vector<std::string> out;
        for (const auto& e : c.journal()) {
            for (const auto& p : prefixes) {
                if (e.rfind(p, 0) == 0) {
                    out.push_back(e);
                    break;
                }
            }
        }
        return out;
    }
    static size_t indexOf(const std::vector<std::string>& journal, const std::string& prefix) {
        const auto it = std::find_if(journal.begin(), journal.end(),
                                     [&](const std::string& e) { return e.rfind(prefix, 0) == 0; });
        return it == journal.end() ? std::string::npos : static_cast<size_t>(it - journal.begin());
    }

    std::shared_ptr<DisplaysProvider> provider_;
    std::shared_ptr<OpenGLContextManager> manager_;
};

// Runs `f`, expecting qrl::Exception with exactly this name and reason.
template <class F>
void expectRaise(F&& f, const std::string& name, const std::string& reason) {
    try {
        f();
        ADD_FAILURE() << "expected " << name << ": " << reason;
    } catch (const Exception& e) {
        EXPECT_EQ(e.name(), name);
        EXPECT_EQ(e.reason(), reason);
    }
}

}  // namespace qrl::test
