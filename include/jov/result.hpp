#pragma once
/// @file
/// @brief Result<T>: the value of a blocking operation, or its error.

#include <optional>
#include <stdexcept>
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

  /// @brief Dereferences the value.
  T* operator->() { return &value(); }
  /// @brief Dereferences the value.
  T& operator*() & { return value(); }

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

 private:
  std::optional<JovError> error_;
};

}  // namespace jov
