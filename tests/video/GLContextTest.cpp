#include "qrl/video/GLContext.h"

#include <gtest/gtest.h>

#include <thread>

#include "qrl/video/sim/SimGLContext.h"

namespace qrl {
namespace {

TEST(GLContextTest, LockIsRecursiveAndBindsForTheHolder) {
    SimGLContext a(SimRenderer{}, nullptr);
    SimGLContext b(SimRenderer{}, nullptr, a.shareGroupHandle());
    EXPECT_EQ(a.shareGroup(), b.shareGroup());
    EXPECT_EQ(GLContext::boundOnCallingThread(), nullptr);
    a.lock();
    a.lock();
    EXPECT_EQ(a.lockDepth(), 2);
    EXPECT_EQ(GLContext::boundOnCallingThread(), &a);
    b.lock();  // the innermost lock decides the binding
    EXPECT_EQ(GLContext::boundOnCallingThread(), &b);
    b.unlock();  // back to the one still held
    EXPECT_EQ(GLContext::boundOnCallingThread(), &a);
    a.unlock();
    EXPECT_TRUE(a.unlock());
    EXPECT_EQ(GLContext::boundOnCallingThread(), nullptr);

    // An unlock the thread does not own is refused and changes nothing.
    EXPECT_FALSE(a.unlock());
    EXPECT_EQ(a.refusedUnlocks(), 1u);
    EXPECT_EQ(a.lockDepth(), 0);

    // gl() outside the lock binds; the next unlock on the thread, refused, releases it.
    const uint64_t without = SimGLContext::callsWithoutContext();
    a.gl().glFlush();
    EXPECT_EQ(GLContext::boundOnCallingThread(), &a);
    EXPECT_FALSE(a.unlock());
    EXPECT_EQ(GLContext::boundOnCallingThread(), nullptr);
    EXPECT_EQ(SimGLContext::callsWithoutContext(), without);

    // Current is per thread and binds nothing.
    EXPECT_TRUE(a.makeCurrent());
    EXPECT_EQ(GLContext::current(), &a);
    EXPECT_EQ(GLContext::boundOnCallingThread(), nullptr);
    std::thread([&] { EXPECT_EQ(GLContext::current(), nullptr); }).join();
    GLContext::clearCurrent();
}

}  // namespace
}  // namespace qrl
