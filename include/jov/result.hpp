#pragma once
/// @file
/// @brief Result<T>: the value of a blocking operation, or its error.

#include <optional>
#include <stdexcept>
#include <type_traits>
#include <utility>
#include <variant>

#include "jov/error.hpp"

namespace jov {

/// @brief Raised by Result::value() on a failed result and Result::error() on a successful one.
class JovBadResultAccess : public std::logic_error {
 public:
  using std::logic_error::logic_error;
};

/// @brief The outcome of a blocking operation: a value of type T or a JovError.
template <class T>
class Result;
template <>
class Result<void>;

template <class T>
class Result {
 public:
  /// @brief A successful result.
  Result(T value) : state_(std::in_place_index<0>, std::move(value)) {}
  /// @brief A failed result.
  Result(JovError error) : state_(std::in_place_index<1>, std::move(error)) {}

  /// @brief True on success.
  bool ok() const noexcept { return state_.index() == 0; }
  /// @brief True on success.
  explicit operator bool() const noexcept { return ok(); }

  /// @brief The value; raises JovBadResultAccess on a failed result.
  T& value() & {
    check(true);
    return std::get<0>(state_);
  }
  /// @brief The value; raises JovBadResultAccess on a failed result.
  const T& value() const& {
    check(true);
    return std::get<0>(state_);
  }
  /// @brief The value, moved out; raises JovBadResultAccess on a failed result.
  T&& value() && {
    check(true);
    return std::get<0>(std::move(state_));
  }
  /// @brief The value, or the fallback on a failed result.
  T valueOr(T fallback) const& { return ok() ? std::get<0>(state_) : std::move(fallback); }

  /// @brief The error; raises JovBadResultAccess on a successful result.
  const JovError& error() const {
    check(false);
    return std::get<1>(state_);
  }
  /// @brief The error, or nothing on success.
  std::optional<JovError> errorIfAny() const {
    return ok() ? std::nullopt : std::optional<JovError>(std::get<1>(state_));
  }

  /// @brief The value's members; raises JovBadResultAccess on a failed result, as value().
  T* operator->() { return &value(); }
  /// @brief The value; raises JovBadResultAccess on a failed result, as value().
  T& operator*() & { return value(); }

  /// @brief On success, f(value) (which returns a Result); on failure, the error unchanged.
  template <class F>
  auto and_then(F&& f) && -> std::invoke_result_t<F, T&&> {
    if (ok()) return std::forward<F>(f)(std::get<0>(std::move(state_)));
    return std::get<1>(std::move(state_));
  }
  /// @brief On success, a Result holding f(value); on failure, the error unchanged.
  template <class F>
  auto transform(F&& f) && {
    using U = std::invoke_result_t<F, T&&>;
    // Result<U> rather than Result<void>: a dependent name, which clang checks only once
    // Result<void> is complete.
    if constexpr (std::is_void_v<U>) {
      if (!ok()) return Result<U>(std::get<1>(std::move(state_)));
      std::forward<F>(f)(std::get<0>(std::move(state_)));
      return Result<U>();
    } else {
      if (!ok()) return Result<U>(std::get<1>(std::move(state_)));
      return Result<U>(std::forward<F>(f)(std::get<0>(std::move(state_))));
    }
  }
  /// @brief On failure, f(error) (which returns a Result<T>); on success, the value unchanged.
  template <class F>
  Result or_else(F&& f) && {
    if (ok()) return std::move(*this);
    return std::forward<F>(f)(std::get<1>(std::move(state_)));
  }

 private:
  void check(bool wantValue) const {
    if (ok() != wantValue)
      throw JovBadResultAccess(wantValue ? "Result holds an error" : "Result holds no error");
  }
  std::variant<T, JovError> state_;
};

/// @brief The outcome of a blocking operation without a value: success or a JovError.
template <>
class Result<void> {
 public:
  /// @brief A successful result.
  Result() = default;
  /// @brief A failed result.
  Result(JovError error) : error_(std::move(error)) {}
  /// @brief A failed result when the optional holds an error, else success.
  static Result fromOptional(std::optional<JovError> error) {
    return error ? Result(std::move(*error)) : Result();
  }

  /// @brief True on success.
  bool ok() const noexcept { return !error_.has_value(); }
  /// @brief True on success.
  explicit operator bool() const noexcept { return ok(); }
  /// @brief Does nothing on success; raises JovBadResultAccess on failure (for symmetry).
  void value() const {
    if (error_) throw JovBadResultAccess("Result holds an error");
  }
  /// @brief The error; raises JovBadResultAccess on a successful result.
  const JovError& error() const {
    if (!error_) throw JovBadResultAccess("Result holds no error");
    return *error_;
  }
  /// @brief The error, or nothing on success.
  const std::optional<JovError>& errorIfAny() const { return error_; }

  /// @brief On success, f() (which returns a Result); on failure, the error unchanged.
  template <class F>
  auto and_then(F&& f) && -> std::invoke_result_t<F> {
    if (ok()) return std::forward<F>(f)();
    return std::move(*error_);
  }
  /// @brief On success, a Result holding f(); on failure, the error unchanged.
  template <class F>
  auto transform(F&& f) && {
    using U = std::invoke_result_t<F>;
    if constexpr (std::is_void_v<U>) {
      if (ok()) std::forward<F>(f)();
      return std::move(*this);
    } else {
      if (!ok()) return Result<U>(std::move(*error_));
      return Result<U>(std::forward<F>(f)());
    }
  }
  /// @brief On failure, f(error) (which returns a Result<void>); on success, success.
  template <class F>
  Result or_else(F&& f) && {
    if (ok()) return std::move(*this);
    return std::forward<F>(f)(std::move(*error_));
  }

 private:
  std::optional<JovError> error_;
};

}  // namespace jov
