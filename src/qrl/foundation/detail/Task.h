// A move-only `void()` callable with inline storage: callables of up to
// kInlineSize bytes that move without throwing are kept in place, larger ones
// on the heap. Used where std::function would allocate per submission.
#pragma once

#include <cstddef>
#include <functional>
#include <new>
#include <type_traits>
#include <utility>

namespace qrl::detail {

template <class T>
struct IsStdFunction : std::false_type {};
template <class R, class... A>
struct IsStdFunction<std::function<R(A...)>> : std::true_type {};

// True for callables that can be empty (function pointers, std::function)
// and are: submitting one is a caller's mistake that is better reported at
// the call than on a worker thread.
template <class F>
bool isEmptyCallable(const F& f) {
    if constexpr (std::is_pointer_v<F> || std::is_member_pointer_v<F> || IsStdFunction<F>::value) return !f;
    else return false;
}

class Task {
public:
    static constexpr std::size_t kInlineSize = 48;

    Task() noexcept = default;

    template <class F, class D = std::decay_t<F>>
        requires(!std::is_same_v<D, Task> && std::is_invocable_v<D&>)
    Task(F&& f) {  // NOLINT(google-explicit-constructor): a Task is built from any callable
        if constexpr (fitsInline<D>()) {
            ::new (static_cast<void*>(storage_)) D(std::forward<F>(f));
            ops_ = &kInlineOps<D>;
        } else {
            heapSlot() = new D(std::forward<F>(f));
            ops_ = &kHeapOps<D>;
        }
    }

    Task(Task&& other) noexcept : ops_(other.ops_) {
        if (ops_) {
            ops_->relocate(storage_, other.storage_);
            other.ops_ = nullptr;
        }
    }

    Task& operator=(Task&& other) noexcept {
        if (this != &other) {
            reset();
            if (other.ops_) {
                ops_ = other.ops_;
                ops_->relocate(storage_, other.storage_);
                other.ops_ = nullptr;
            }
        }
        return *this;
    }

    Task(const Task&) = delete;
    Task& operator=(const Task&) = delete;
    ~Task() { reset(); }

    explicit operator bool() const noexcept { return ops_ != nullptr; }

    // Calls the callable; it stays in place and may be called again.
    void operator()() { ops_->invoke(storage_); }

    // Destroys the callable (and what it captured) now.
    void reset() noexcept {
        if (ops_) {
            const Ops* ops = ops_;
            ops_ = nullptr;
            ops->destroy(storage_);
        }
    }

private:
    struct Ops {
        void (*invoke)(void* storage);
        void (*relocate)(void* to, void* from) noexcept;  // move-construct into `to`, destroy `from`
        void (*destroy)(void* storage) noexcept;
    };

    template <class D>
    static constexpr bool fitsInline() {
        return sizeof(D) <= kInlineSize && alignof(D) <= alignof(std::max_align_t) &&
               std::is_nothrow_move_constructible_v<D>;
    }

    void*& heapSlot() { return *reinterpret_cast<void**>(storage_); }

    template <class D>
    static constexpr Ops kInlineOps{
        [](void* s) { (*std::launder(static_cast<D*>(s)))(); },
        [](void* to, void* from) noexcept {
            D* source = std::launder(static_cast<D*>(from));
            ::new (to) D(std::move(*source));
            source->~D();
        },
        [](void* s) noexcept { std::launder(static_cast<D*>(s))->~D(); },
    };

    template <class D>
    static constexpr Ops kHeapOps{
        [](void* s) { (**static_cast<D**>(s))(); },
        [](void* to, void* from) noexcept { *static_cast<void**>(to) = *static_cast<void**>(from); },
        [](void* s) noexcept { delete *static_cast<D**>(s); },
    };

    alignas(std::max_align_t) unsigned char storage_[kInlineSize];
    const Ops* ops_ = nullptr;
};

}  // namespace qrl::detail
