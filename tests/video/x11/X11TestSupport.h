// A private Xvfb for one test (started with -displayfd in a temporary
// folder, stopped at the end), and an X client of the test's own, loaded with
// dlopen so that the test links nothing from X: it makes monitors and windows
// as another program would.
#pragma once

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <X11/Xlib.h>
#include <X11/extensions/Xrandr.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "video/BackendTestSupport.h"

extern char** environ;

namespace qrl::test {

class Xvfb {
public:
    // Starts Xvfb with one screen of the given size. `why` says what went
    // wrong when running() is false afterwards.
    explicit Xvfb(const std::string& screen = "3840x2160x24") {
        const std::string program = findProgram("Xvfb");
        if (program.empty()) {
            why_ = "Xvfb is not installed";
            return;
        }
        std::string pattern = (std::filesystem::temp_directory_path() / "qrl-xvfb-XXXXXX").string();
        if (!::mkdtemp(pattern.data())) {
            why_ = "no temporary folder";
            return;
        }
        dir_ = pattern;
        int fds[2];
        if (::pipe2(fds, O_CLOEXEC) != 0) {
            why_ = "no pipe";
            return;
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, fds[1], 3);  // dup2 clears close-on-exec
        const std::string log = dir_ + "/xvfb.log";
        posix_spawn_file_actions_addopen(&actions, 2, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
        std::vector<std::string> args = {program, "-displayfd", "3", "-screen", "0", screen, "-nolisten", "tcp",
                                         "-noreset", "-nolock"};
        std::vector<char*> argv;
        for (auto& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        const int rc = ::posix_spawn(&pid_, program.c_str(), &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        ::close(fds[1]);
        if (rc != 0) {
            ::close(fds[0]);
            pid_ = -1;
            why_ = "cannot start Xvfb";
            return;
        }
        // The display number arrives on the pipe; wait for it with a deadline.
        std::string number;
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (std::chrono::steady_clock::now() < deadline) {
            pollfd p{fds[0], POLLIN, 0};
            if (::poll(&p, 1, 200) <= 0) continue;
            char c;
            const ssize_t n = ::read(fds[0], &c, 1);
            if (n <= 0 || c == '\n') break;
            number += c;
        }
        ::close(fds[0]);
        if (number.empty()) {
            why_ = "Xvfb gave no display number (see " + log + ")";
            return;
        }
        name_ = ":" + number;
    }

    ~Xvfb() {
        stop();
        if (!dir_.empty()) {
            std::error_code ec;
            std::filesystem::remove_all(dir_, ec);
        }
    }

    bool running() const { return !name_.empty(); }
    const std::string& name() const { return name_; }
    const std::string& why() const { return why_; }

    // Terminates the server and waits for it, with a deadline.
    void stop() {
        if (pid_ <= 0) return;
        ::kill(pid_, SIGTERM);
        const int pidfd = static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0));
        if (pidfd >= 0) {
            pollfd p{pidfd, POLLIN, 0};
            if (::poll(&p, 1, 5000) <= 0) ::kill(pid_, SIGKILL);
            ::close(pidfd);
        }
        int status = 0;
        ::waitpid(pid_, &status, 0);
        pid_ = -1;
    }

private:
    pid_t pid_ = -1;
    std::string dir_;
    std::string name_;
    std::string why_;
};

// Skips (or fails under CI) when the server could not start.
#define QRL_REQUIRE_XVFB(server)                                                           \
    do {                                                                                   \
        if (!(server).running()) {                                                         \
            if (::qrl::test::underCI()) FAIL() << "Xvfb needed under CI: " << (server).why(); \
            GTEST_SKIP() << "no private X server: " << (server).why();                     \
        }                                                                                  \
    } while (0)

// libX11, libXrandr and libXss functions, loaded for the test's own client.
struct XLib {
    XLib() {
        x11 = ::dlopen("libX11.so.6", RTLD_NOW | RTLD_LOCAL);
        xrandr = ::dlopen("libXrandr.so.2", RTLD_NOW | RTLD_LOCAL);
        if (!x11 || !xrandr) return;
#define QRL_X(lib, name) name = reinterpret_cast<decltype(&::name)>(::dlsym(lib, #name))
        QRL_X(x11, XOpenDisplay);
        QRL_X(x11, XCloseDisplay);
        QRL_X(x11, XDefaultRootWindow);
        QRL_X(x11, XInternAtom);
        QRL_X(x11, XCreateWindow);
        QRL_X(x11, XMapWindow);
        QRL_X(x11, XDestroyWindow);
        QRL_X(x11, XChangeProperty);
        QRL_X(x11, XSync);
        QRL_X(x11, XForceScreenSaver);
        QRL_X(xrandr, XRRAllocateMonitor);
        QRL_X(xrandr, XRRSetMonitor);
        QRL_X(xrandr, XRRDeleteMonitor);
        QRL_X(x11, XFree);
        QRL_X(xrandr, XRRGetScreenResourcesCurrent);
        QRL_X(xrandr, XRRFreeScreenResources);
        QRL_X(xrandr, XRRGetOutputInfo);
        QRL_X(xrandr, XRRFreeOutputInfo);
#undef QRL_X
    }
    bool loaded() const { return XOpenDisplay && XRRSetMonitor && XFree; }

    void* x11 = nullptr;
    void* xrandr = nullptr;
    decltype(&::XOpenDisplay) XOpenDisplay = nullptr;
    decltype(&::XCloseDisplay) XCloseDisplay = nullptr;
    decltype(&::XDefaultRootWindow) XDefaultRootWindow = nullptr;
    decltype(&::XInternAtom) XInternAtom = nullptr;
    decltype(&::XCreateWindow) XCreateWindow = nullptr;
    decltype(&::XMapWindow) XMapWindow = nullptr;
    decltype(&::XDestroyWindow) XDestroyWindow = nullptr;
    decltype(&::XChangeProperty) XChangeProperty = nullptr;
    decltype(&::XSync) XSync = nullptr;
    decltype(&::XForceScreenSaver) XForceScreenSaver = nullptr;
    decltype(&::XRRAllocateMonitor) XRRAllocateMonitor = nullptr;
    decltype(&::XRRSetMonitor) XRRSetMonitor = nullptr;
    decltype(&::XRRDeleteMonitor) XRRDeleteMonitor = nullptr;
    decltype(&::XFree) XFree = nullptr;
    decltype(&::XRRGetScreenResourcesCurrent) XRRGetScreenResourcesCurrent = nullptr;
    decltype(&::XRRFreeScreenResources) XRRFreeScreenResources = nullptr;
    decltype(&::XRRGetOutputInfo) XRRGetOutputInfo = nullptr;
    decltype(&::XRRFreeOutputInfo) XRRFreeOutputInfo = nullptr;
};

// One connection of the test's own, with the operations the tests need.
class XClient {
public:
    XClient(XLib& x, const std::string& display) : x_(x) {
        if (x_.loaded()) d_ = x_.XOpenDisplay(display.c_str());
    }
    ~XClient() {
        if (d_) x_.XCloseDisplay(d_);
    }
    bool open() const { return d_ != nullptr; }
    Atom atom(const char* name) { return x_.XInternAtom(d_, name, False); }

    // A monitor with no outputs, or with the output named (which hides the
    // server's automatic monitor for it).
    void setMonitor(const char* name, int x, int y, int w, int h, bool primary, RROutput output = 0) {
        XRRMonitorInfo* m = x_.XRRAllocateMonitor(d_, output ? 1 : 0);
        m->name = atom(name);
        m->primary = primary;
        m->x = x;
        m->y = y;
        m->width = w;
        m->height = h;
        m->mwidth = w / 4;
        m->mheight = h / 4;
        if (output) m->outputs[0] = output;
        x_.XRRSetMonitor(d_, x_.XDefaultRootWindow(d_), m);
        x_.XFree(m);
        x_.XSync(d_, False);
    }
    // The output of that name, 0 when there is none.
    RROutput output(const std::string& name) {
        XRRScreenResources* res = x_.XRRGetScreenResourcesCurrent(d_, x_.XDefaultRootWindow(d_));
        RROutput found = 0;
        for (int i = 0; res && i < res->noutput && !found; ++i) {
            XRROutputInfo* info = x_.XRRGetOutputInfo(d_, res, res->outputs[i]);
            if (info && name == info->name) found = res->outputs[i];
            if (info) x_.XRRFreeOutputInfo(info);
        }
        if (res) x_.XRRFreeScreenResources(res);
        return found;
    }
    void deleteMonitor(const char* name) {
        x_.XRRDeleteMonitor(d_, x_.XDefaultRootWindow(d_), atom(name));
        x_.XSync(d_, False);
    }
    // A mapped top-level window; override-redirect windows bypass any window manager.
    Window window(int x, int y, int w, int h, bool overrideRedirect) {
        XSetWindowAttributes a{};
        a.override_redirect = overrideRedirect;
        const Window win = x_.XCreateWindow(d_, x_.XDefaultRootWindow(d_), x, y, w, h, 0, CopyFromParent, InputOutput,
                                            nullptr, CWOverrideRedirect, &a);
        x_.XMapWindow(d_, win);
        x_.XSync(d_, False);
        return win;
    }
    void setCardinal(Window w, const char* property, unsigned long value) {
        x_.XChangeProperty(d_, w, atom(property), XA_CARDINAL_ATOM, 32, PropModeReplace,
                           reinterpret_cast<unsigned char*>(&value), 1);
        x_.XSync(d_, False);
    }
    void setFullScreenState(Window w) {
        unsigned long state = atom("_NET_WM_STATE_FULLSCREEN");
        x_.XChangeProperty(d_, w, atom("_NET_WM_STATE"), XA_ATOM_ATOM, 32, PropModeReplace,
                           reinterpret_cast<unsigned char*>(&state), 1);
        x_.XSync(d_, False);
    }
    void destroy(Window w) {
        x_.XDestroyWindow(d_, w);
        x_.XSync(d_, False);
    }
    void screenSaver(int mode) {
        x_.XForceScreenSaver(d_, mode);
        x_.XSync(d_, False);
    }

private:
    static constexpr Atom XA_ATOM_ATOM = 4;      // XA_ATOM
    static constexpr Atom XA_CARDINAL_ATOM = 6;  // XA_CARDINAL
    XLib& x_;
    Display* d_ = nullptr;
};

}  // namespace qrl::test
