// UniqueFd: sole owner of a file descriptor, closed on destruction; and an
// eventfd used to wake a thread that waits in poll().
#pragma once

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>
#include <utility>

namespace qrl::detail {

class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) reset(std::exchange(other.fd_, -1));
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { reset(); }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    void reset(int fd = -1) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = fd;
    }

private:
    int fd_ = -1;
};

// A non-blocking, close-on-exec eventfd; invalid when the system refuses one.
inline UniqueFd makeWakeFd() { return UniqueFd(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)); }

inline void signalWakeFd(const UniqueFd& fd) {
    const uint64_t one = 1;
    if (fd) (void)!::write(fd.get(), &one, sizeof one);
}

}  // namespace qrl::detail
