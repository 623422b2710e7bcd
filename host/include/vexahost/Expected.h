// A value, or the error that came in its place. The library throws nothing of its own.
#pragma once

#include <utility>
#include <variant>

#include "vexahost/Error.h"

namespace vexahost {

/// The value of an operation that has nothing to give but its success.
struct Done {};

template <typename T>
class [[nodiscard]] Expected {
  public:
    Expected(T value) : content(std::move(value)) {}      // NOLINT: made from either on purpose
    Expected(Error error) : content(std::move(error)) {}  // NOLINT

    /// True when there is a value.
    explicit operator bool() const { return std::holds_alternative<T>(content); }

    /// The value; only with a value.
    [[nodiscard]] T& operator*() { return *std::get_if<T>(&content); }
    [[nodiscard]] const T& operator*() const { return *std::get_if<T>(&content); }
    [[nodiscard]] T* operator->() { return std::get_if<T>(&content); }
    [[nodiscard]] const T* operator->() const { return std::get_if<T>(&content); }

    /// The error; only without a value.
    [[nodiscard]] const Error& Failure() const { return *std::get_if<Error>(&content); }

  private:
    std::variant<T, Error> content;
};

}  // namespace vexahost
