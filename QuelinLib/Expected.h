#pragma once
// A value or an error text, with std::expected's interface. Always this class,
// never std::expected where the standard library has it: the library is built
// as C++23 and its users may be on C++20, and both must see the same type (the
// same layout and the same mangled names) in every header they share.
#include <exception>
#include <utility>
#include <optional>
#include <type_traits>
#include <variant>

namespace Quelin::Detail {

template <typename E> class Unexpected {
public:
    explicit Unexpected(E error) : mError(std::move(error)) {}
    E const& error() const& { return mError; }
    E& error() & { return mError; }
    E&& error() && { return std::move(mError); }

private:
    E mError;
};

class BadExpectedAccess : public std::exception {
public:
    char const* what() const noexcept override { return "access to the value of an Expected that holds an error"; }
};

template <typename T, typename E> class Expected {
public:
    using value_type = T;
    using error_type = E;

    Expected() requires std::is_default_constructible_v<T> : mData(std::in_place_index<0>) {}
    template <typename U = T>
        requires(std::is_constructible_v<T, U &&> && !std::is_same_v<std::remove_cvref_t<U>, Expected> &&
                 !std::is_same_v<std::remove_cvref_t<U>, std::in_place_t>)
    Expected(U&& value) : mData(std::in_place_index<0>, std::forward<U>(value)) {}
    template <typename G> Expected(Unexpected<G> const& e) : mData(std::in_place_index<1>, e.error()) {}
    template <typename G> Expected(Unexpected<G>&& e) : mData(std::in_place_index<1>, std::move(e).error()) {}

    bool has_value() const { return mData.index() == 0; }
    explicit operator bool() const { return has_value(); }

    T& operator*() & { return std::get<0>(mData); }
    T const& operator*() const& { return std::get<0>(mData); }
    T&& operator*() && { return std::get<0>(std::move(mData)); }
    T* operator->() { return &std::get<0>(mData); }
    T const* operator->() const { return &std::get<0>(mData); }
    T& value() & { check(); return std::get<0>(mData); }
    T const& value() const& { check(); return std::get<0>(mData); }
    T&& value() && { check(); return std::get<0>(std::move(mData)); }
    template <typename U> T value_or(U&& fallback) const& {
        return has_value() ? **this : static_cast<T>(std::forward<U>(fallback));
    }
    E& error() & { return std::get<1>(mData); }
    E const& error() const& { return std::get<1>(mData); }
    E&& error() && { return std::get<1>(std::move(mData)); }

private:
    void check() const {
        if (!has_value()) throw BadExpectedAccess();
    }
    std::variant<T, E> mData;
};

template <typename E> class Expected<void, E> {
public:
    using value_type = void;
    using error_type = E;

    Expected() = default;
    template <typename G> Expected(Unexpected<G> const& e) : mError(std::in_place, e.error()) {}
    template <typename G> Expected(Unexpected<G>&& e) : mError(std::in_place, std::move(e).error()) {}

    bool has_value() const { return !mError; }
    explicit operator bool() const { return has_value(); }
    void operator*() const {}
    void value() const {
        if (mError) throw BadExpectedAccess();
    }
    E& error() & { return *mError; }
    E const& error() const& { return *mError; }
    E&& error() && { return std::move(*mError); }

private:
    std::optional<E> mError;
};

} // namespace Quelin::Detail

