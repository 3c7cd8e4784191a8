#include "qrl/video/GLContext.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <thread>

#include "qrl/video/sim/SimGLContext.h"

namespace qrl {
namespace {

std::vector<std::string> lockEvents(const SimGLContext& c) {
    std::vector<std::string> out;
    for (const auto& e : c.journal())
        if (e.rfind("lock", 0) == 0 || e.rfind("unlock", 0) == 0 || e == "bind refused") out.push_back(e);
    return out;
}

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
    EXPECT_EQ(lockEvents(a), (std::vector<std::string>{"lock 1", "lock 2", "unlock 1", "unlock 0"}));

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

// Two threads take turns on one context, strictly alternating; each turn
// locks (binding the context to that thread), draws, and unlocks. The fake
// refuses a bind while another thread has the context bound, as EGL does.
TEST(GLContextTest, TwoThreadsTakeTurnsOnOneContext) {
    SimGLContext c(SimRenderer{}, nullptr);
    std::mutex m;
    std::condition_variable cv;
    int turn = 0;
    constexpr int kTurns = 200;
    auto worker = [&](int parity) {
        for (int i = parity; i < kTurns; i += 2) {
            {
                std::unique_lock l(m);
                cv.wait(l, [&] { return turn == i; });
            }
            c.lock();
            c.gl().glClearColor(static_cast<float>(i), 0, 0, 0);
            c.lock();
            c.gl().glFlush();
            c.unlock();
            c.unlock();
            {
                std::lock_guard l(m);
                ++turn;
            }
            cv.notify_all();
        }
    };
    const uint64_t without = SimGLContext::callsWithoutContext();
    std::thread t1(worker, 0), t2(worker, 1);
    t1.join();
    t2.join();
    EXPECT_EQ(turn, kTurns);
    const auto events = lockEvents(c);
    EXPECT_EQ(std::count(events.begin(), events.end(), "bind refused"), 0);
    EXPECT_EQ(std::count(events.begin(), events.end(), "lock 1"), kTurns);
    EXPECT_EQ(SimGLContext::callsWithoutContext(), without);
    EXPECT_EQ(c.refusedUnlocks(), 0u);

    // A thread that holds the binding outside the lock keeps others out, as EGL would.
    std::mutex gate;
    std::condition_variable gateCv;
    bool bound = false, done = false;
    std::thread holder([&] {
        c.gl().glFlush();  // bound here, without the lock
        {
            std::lock_guard l(gate);
            bound = true;
        }
        gateCv.notify_all();
        std::unique_lock l(gate);
        gateCv.wait(l, [&] { return done; });
        c.unlock();  // refused; lets the binding go
    });
    {
        std::unique_lock l(gate);
        gateCv.wait(l, [&] { return bound; });
    }
    c.lock();
    EXPECT_NE(GLContext::boundOnCallingThread(), &c);
    c.unlock();
    {
        std::lock_guard l(gate);
        done = true;
    }
    gateCv.notify_all();
    holder.join();
    EXPECT_EQ(lockEvents(c).back(), "unlock refused");
}

TEST(GLContextTest, FakeKeepsOneStickyErrorAndInjectedFailures) {
    SimGLContext c(SimRenderer{}, nullptr);
    c.lock();
    const GLFunctions& gl = c.gl();
    gl.glEnable(0x1234);              // unknown capability: GL_INVALID_ENUM
    gl.glViewport(0, 0, -1, 1);       // a second error is dropped while the first is unread
    EXPECT_EQ(gl.glGetError(), GL_INVALID_ENUM);
    EXPECT_EQ(gl.glGetError(), GL_NO_ERROR);
    c.failNextCall("glGenTextures", GL_OUT_OF_MEMORY);
    GLuint name = 0;
    gl.glGenTextures(1, &name);
    EXPECT_EQ(name, 0u);  // no effect
    EXPECT_EQ(gl.glGetError(), GL_OUT_OF_MEMORY);
    gl.glGenTextures(1, &name);
    EXPECT_NE(name, 0u);
    // Platform enums that Linux drivers lack are refused, as Mesa refuses them.
    gl.glPixelStorei(GL_UNPACK_CLIENT_STORAGE_APPLE, 1);
    EXPECT_EQ(gl.glGetError(), GL_INVALID_ENUM);
    gl.glBindTexture(GL_TEXTURE_RECTANGLE_EXT, name);
    gl.glTexImage2D(GL_TEXTURE_RECTANGLE_EXT, 0, GL_RGB, 4, 4, 0, GL_YCBCR_422_APPLE, GL_UNSIGNED_SHORT_8_8_APPLE,
                    nullptr);
    EXPECT_EQ(gl.glGetError(), GL_INVALID_ENUM);
    gl.glTexImage2D(GL_TEXTURE_RECTANGLE_EXT, 0, GL_RGB, 4, 4, 0, GL_YCBCR_MESA, GL_UNSIGNED_SHORT_8_8_MESA, nullptr);
    EXPECT_EQ(gl.glGetError(), GL_INVALID_OPERATION);  // Mesa's format wants its own internal format
    // Matrix stacks under- and overflow.
    gl.glMatrixMode(GL_PROJECTION);
    gl.glPopMatrix();
    EXPECT_EQ(gl.glGetError(), GL_STACK_UNDERFLOW);
    for (int i = 0; i < 4; ++i) gl.glPushMatrix();
    EXPECT_EQ(gl.glGetError(), GL_STACK_OVERFLOW);
    EXPECT_EQ(c.matrixDepth(GL_PROJECTION), 4);
    c.unlock();
}

}  // namespace
}  // namespace qrl
