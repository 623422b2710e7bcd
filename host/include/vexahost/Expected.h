// A value, or the error that came instead. The library throws nothing of its own.
#pragma once

#include <utility>
#include <variant>

#include "vexahost/Error.h"

namespace vexahost {

// The value of an operation that returns nothing but its success.
struct Done {};

// Access is named as that of std::expected.
template <typename T>
class [[nodiscard]] Expected {
  public:
    Expected(T value) : content(std::move(value)) {}      // NOLINT: implicit on purpose
    Expected(Error error) : content(std::move(error)) {}  // NOLINT

    [[nodiscard]] bool has_value() const { return std::holds_alternative<T>(content); }
    explicit operator bool() const { return has_value(); }

    // The value; only with a value.
    [[nodiscard]] T& operator*() { return *std::get_if<T>(&content); }
    [[nodiscard]] const T& operator*() const { return *std::get_if<T>(&content); }
    [[nodiscard]] T* operator->() { return std::get_if<T>(&content); }
    [[nodiscard]] const T* operator->() const { return std::get_if<T>(&content); }

    // The value; throws std::bad_variant_access without one.
    [[nodiscard]] T& value() { return std::get<T>(content); }
    [[nodiscard]] const T& value() const { return std::get<T>(content); }

    // The error; only without a value.
    [[nodiscard]] const Error& error() const { return *std::get_if<Error>(&content); }

  private:
    std::variant<T, Error> content;
};

}  // namespace vexahost
