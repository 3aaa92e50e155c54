// Result<T>: a value or an error (C++20 has no std::expected).
#pragma once

#include "base/TvError.h"

#include <utility>
#include <variant>

namespace tv {

template <class T>
class [[nodiscard]] Result {
public:
    Result(T value) : v_(std::in_place_index<0>, std::move(value)) {}
    Result(TvError error) : v_(std::in_place_index<1>, std::move(error)) {}

    bool ok() const { return v_.index() == 0; }
    explicit operator bool() const { return ok(); }

    // REQUIRES: ok().
    T& value() & { return std::get<0>(v_); }
    const T& value() const& { return std::get<0>(v_); }
    T&& value() && { return std::get<0>(std::move(v_)); }
    T* operator->() { return &value(); }
    const T* operator->() const { return &value(); }
    T& operator*() & { return value(); }
    const T& operator*() const& { return value(); }

    // REQUIRES: !ok().
    const TvError& error() const { return std::get<1>(v_); }

private:
    std::variant<T, TvError> v_;
};

} // namespace tv
