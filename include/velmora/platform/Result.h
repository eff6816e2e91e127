#pragma once

#include <string>
#include <type_traits>
#include <utility>
#include <variant>

#include "velmora/platform/Error.h"
#include "velmora/platform/Fatal.h"

namespace velmora::platform {

// The success value of an operation that only succeeds or fails.
struct Void {
    friend bool operator==(Void, Void) = default;
};

// Either the value of a successful operation or the error it failed with; every callback gets one.
template <class T>
class [[nodiscard]] Result {
  public:
    using Value = T;

    static Result success(T value) { return Result(std::in_place_index<0>, std::move(value)); }
    static Result error(Error error) { return Result(std::in_place_index<1>, std::move(error)); }

    bool isSuccess() const { return state_.index() == 0; }
    bool isError() const { return state_.index() == 1; }

    // Reading the wrong side is a programming error in the caller, not a runtime condition.
    const T& value() const& { return std::get<0>(checked(0)); }
    T& value() & { return std::get<0>(checked(0)); }
    T&& value() && { return std::get<0>(std::move(checked(0))); }
    const Error& error() const { return std::get<1>(checked(1)); }

    template <class F>
    auto map(F&& transform) const& -> Result<std::invoke_result_t<F, const T&>> {
        using U = std::invoke_result_t<F, const T&>;
        if (isSuccess()) {
            return Result<U>::success(std::forward<F>(transform)(std::get<0>(state_)));
        }
        return Result<U>::error(std::get<1>(state_));
    }

    template <class F>
    auto map(F&& transform) && -> Result<std::invoke_result_t<F, T&&>> {
        using U = std::invoke_result_t<F, T&&>;
        if (isSuccess()) {
            return Result<U>::success(std::forward<F>(transform)(std::get<0>(std::move(state_))));
        }
        return Result<U>::error(std::get<1>(std::move(state_)));
    }

    template <class F>
    auto flatMap(F&& transform) const& -> std::invoke_result_t<F, const T&> {
        using R = std::invoke_result_t<F, const T&>;
        if (isSuccess()) {
            return std::forward<F>(transform)(std::get<0>(state_));
        }
        return R::error(std::get<1>(state_));
    }

    template <class F>
    auto flatMap(F&& transform) && -> std::invoke_result_t<F, T&&> {
        using R = std::invoke_result_t<F, T&&>;
        if (isSuccess()) {
            return std::forward<F>(transform)(std::get<0>(std::move(state_)));
        }
        return R::error(std::get<1>(std::move(state_)));
    }

    friend bool operator==(const Result&, const Result&) = default;

  private:
    template <std::size_t I, class... A>
    explicit Result(std::in_place_index_t<I> index, A&&... args) : state_(index, std::forward<A>(args)...) {}

    const std::variant<T, Error>& checked(std::size_t side) const {
        if (state_.index() != side) {
            fatalError(side == 0 ? "Result: value() read on an error: " + std::get<1>(state_).description()
                                 : std::string("Result: error() read on a success"));
        }
        return state_;
    }
    std::variant<T, Error>& checked(std::size_t side) {
        std::as_const(*this).checked(side);
        return state_;
    }

    std::variant<T, Error> state_;
};

}  // namespace velmora::platform

namespace velmora {
using platform::Result;
using platform::Void;
}  // namespace velmora
