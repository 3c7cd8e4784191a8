// qrl::format: the framework's one printf-style formatter, type-checked at
// run time, with %@ for descriptions; bad arguments print a marker, never crash.
#pragma once

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

namespace qrl {

class Value;

// One argument of a format call: a small tagged union that refers to (or
// copies) the caller's argument. Arguments held by reference (long double,
// describable objects, Values, strings) must outlive the format call, which
// they do when a FormatArg is built from a parameter of format().
//
// What each kind is accepted by:
//   integers, bool, enums, char ... d i u o x X c, and @ (as a number)
//   float, double, long double  .. f F e E g G a A, and @
//   char pointers, strings ....... s, @, p (char pointers only)
//   pointers, shared_ptr ......... p; @ and s print "(null)" for a null one
//   objects with description() ... @, p when passed by pointer
//   qrl::Value ................... by what it holds: @ always; integers and
//                                  booleans for integer conversions, any
//                                  number for floating point, strings for s
class FormatArg {
public:
    enum class Kind : uint8_t { Bool, Signed, Unsigned, Real, LongReal, CString, String, Pointer, Object, Value };
    using DescribeFn = void (*)(const void* object, std::string& out);

    FormatArg() = delete;
    FormatArg(const FormatArg&) = default;
    FormatArg& operator=(const FormatArg&) = default;

    template <class T>
    FormatArg(const T& v) noexcept {  // NOLINT(google-explicit-constructor): built implicitly by format()
        assign(v);
    }

    Kind kind() const { return kind_; }
    // Width in bytes of the original integer type (1, 2, 4 or 8).
    unsigned integerSize() const { return size_; }
    int64_t signedValue() const { return u_.i; }
    uint64_t unsignedValue() const { return u_.u; }
    double realValue() const { return u_.d; }
    long double longRealValue() const { return *u_.ld; }
    const char* cString() const { return u_.cs; }  // may be null
    std::string_view stringValue() const { return {u_.s.p, u_.s.n}; }
    const void* pointer() const;  // for Pointer, CString and Object kinds
    const qrl::Value& value() const { return *u_.v; }
    // Object kind: appends the description; fromPointer tells whether the
    // object was passed by pointer (so that %p can print it).
    void describe(std::string& out) const { u_.o.fn(u_.o.p, out); }
    bool objectFromPointer() const { return fromPointer_; }

private:
    template <class T>
    static constexpr bool kDescribable = requires(const T& t) {
        { t.description() } -> std::convertible_to<std::string>;
    };
    template <class T>
    static void describeThunk(const void* p, std::string& out) {
        out += static_cast<const T*>(p)->description();
    }
    template <class T>
    static constexpr bool kSmartPointer = requires(const T& t) {
        typename T::element_type;
        { t.get() } -> std::same_as<typename T::element_type*>;
    };
    template <class>
    static constexpr bool kUnsupported = false;

    template <class T>
    void setObjectPointer(const T* p) {
        if (!p) {
            kind_ = Kind::Pointer;
            u_.p = nullptr;
            return;
        }
        kind_ = Kind::Object;
        fromPointer_ = true;
        u_.o.p = p;
        u_.o.fn = &describeThunk<T>;
    }

    template <class T>
    void assign(const T& v) {
        if constexpr (std::is_same_v<T, qrl::Value>) {
            kind_ = Kind::Value;
            u_.v = &v;
        } else if constexpr (std::is_same_v<T, bool>) {
            kind_ = Kind::Bool;
            size_ = 1;
            u_.u = v ? 1 : 0;
        } else if constexpr (std::is_enum_v<T>) {
            assign(static_cast<std::underlying_type_t<T>>(v));
        } else if constexpr (std::is_integral_v<T>) {
            size_ = sizeof(T);
            if constexpr (std::is_signed_v<T>) {
                kind_ = Kind::Signed;
                u_.i = static_cast<int64_t>(v);
            } else {
                kind_ = Kind::Unsigned;
                u_.u = static_cast<uint64_t>(v);
            }
        } else if constexpr (std::is_same_v<T, float> || std::is_same_v<T, double>) {
            kind_ = Kind::Real;
            u_.d = static_cast<double>(v);
        } else if constexpr (std::is_same_v<T, long double>) {
            kind_ = Kind::LongReal;
            u_.ld = &v;
        } else if constexpr (std::is_same_v<T, std::nullptr_t>) {
            kind_ = Kind::Pointer;
            u_.p = nullptr;
        } else if constexpr (std::is_array_v<T> && std::is_same_v<std::remove_cv_t<std::remove_extent_t<T>>, char>) {
            // A char array: up to its first NUL, never past its end.
            size_t n = 0;
            while (n < std::extent_v<T> && v[n] != '\0') ++n;
            kind_ = Kind::String;
            u_.s = {v, n};
        } else if constexpr (std::is_same_v<T, const char*> || std::is_same_v<T, char*>) {
            kind_ = Kind::CString;
            u_.cs = v;
        } else if constexpr (std::is_convertible_v<const T&, std::string_view>) {
            const std::string_view sv = v;
            kind_ = Kind::String;
            u_.s = {sv.data(), sv.size()};
        } else if constexpr (std::is_pointer_v<T>) {
            using Pointee = std::remove_cv_t<std::remove_pointer_t<T>>;
            if constexpr (kDescribable<Pointee>) {
                setObjectPointer<Pointee>(v);
            } else {
                kind_ = Kind::Pointer;
                u_.p = static_cast<const void*>(v);
            }
        } else if constexpr (kSmartPointer<T>) {
            // shared_ptr, unique_ptr and their like.
            assign(v.get());
        } else if constexpr (kDescribable<T>) {
            kind_ = Kind::Object;
            u_.o.p = &v;
            u_.o.fn = &describeThunk<T>;
        } else {
            static_assert(kUnsupported<T>, "qrl::format: this argument type cannot be formatted");
        }
    }

    Kind kind_ = Kind::Pointer;
    uint8_t size_ = 8;
    bool fromPointer_ = false;
    union Payload {
        int64_t i;
        uint64_t u;
        double d;
        const long double* ld;
        const char* cs;
        struct {
            const char* p;
            size_t n;
        } s;
        const void* p;
        struct {
            const void* p;
            DescribeFn fn;
        } o;
        const qrl::Value* v;
    } u_{};
};

// Appends fmt, formatted with args, to out. Never throws for a bad format or
// argument: a mismatch prints "%!d(string=abc)", a missing argument
// "%!d(MISSING)", an unknown conversion "%!y(BADVERB)", a lone '%' at the end
// "%!(NOVERB)", a bad '*' width or precision "%!(BADWIDTH)" / "%!(BADPREC)",
// a positional index of 0 "%!d(BADINDEX)". Extra arguments are ignored.
//
// Differences from C printf, all deliberate:
// - Without a length modifier an integer keeps its own width (at least int):
//   %d of a 64-bit value prints all of it, %x of int -1 prints ffffffff. An
//   explicit modifier (hh h l ll q j z t) converts as printf does: %hhd of
//   300 prints 44.
// - The ' flag has no effect (the C locale has no grouping); output never
//   depends on the process locale.
// - Width and precision of s and @ count UTF-8 characters, not bytes, and a
//   precision never cuts a character in two.
// - %s of a null char* and %@ of a null object print "(null)" whatever the
//   precision; %p of a null pointer prints "(nil)".
// - %lc (and %C) writes the character as UTF-8; %S is %s. %n is refused.
// - Width and precision above 1,000,000 are refused with the markers above.
void vappendFormat(std::string& out, std::string_view fmt, std::span<const FormatArg> args);

// The formatted text as a new string.
std::string vformat(std::string_view fmt, std::span<const FormatArg> args);

template <class... Args>
std::string format(std::string_view fmt, const Args&... args) {
    const std::array<FormatArg, sizeof...(Args)> list{FormatArg(args)...};
    return vformat(fmt, std::span<const FormatArg>(list.data(), list.size()));
}

template <class... Args>
void appendFormat(std::string& out, std::string_view fmt, const Args&... args) {
    const std::array<FormatArg, sizeof...(Args)> list{FormatArg(args)...};
    vappendFormat(out, fmt, std::span<const FormatArg>(list.data(), list.size()));
}

}  // namespace qrl
