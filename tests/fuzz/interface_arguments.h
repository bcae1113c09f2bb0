// SPDX-License-Identifier: MIT
// Arguments of any type out of a fuzzer's bytes.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "tests/fuzz/fuzz_input.h"

// Makes the arguments of one call and keeps what they point to, in blocks of exactly the size that
// the interface asks for, so that a sanitizer sees an access beyond.
class AnyArgument {
 public:
  explicit AnyArgument(FuzzInput& input) : input_(input) {}

  template <typename T>
  T Make() {
    if constexpr (std::is_same_v<T, char**> || std::is_same_v<T, std::uint8_t**>) {
      return MakeBufferPointer<T>();
    } else if constexpr (std::is_same_v<T, const char*> || std::is_same_v<T, char*>) {
      return MakeText();
    } else if constexpr (std::is_pointer_v<T>) {
      return reinterpret_cast<T>(MakePointer<std::remove_const_t<std::remove_pointer_t<T>>>());
    } else if constexpr (std::is_integral_v<T>) {
      return MakeInteger<T>();
    } else {
      T value;
      input_.Fill(reinterpret_cast<std::uint8_t*>(&value), sizeof value);
      return value;
    }
  }

 private:
  static constexpr std::size_t kAddress = 16;  // of IPv6 the longest; also dotted decimal text

  std::uint8_t* Keep(std::size_t size) {
    return kept_.emplace_back(std::make_unique<std::uint8_t[]>(size)).get();
  }
  bool Null() { return input_.Number(1) % 16 == 0; }

  template <typename T>
  T MakeInteger() {
    const std::uint32_t choice = input_.Number(1);
    if (choice >= 224) {
      constexpr std::array<std::uint64_t, 4> kEdges = {~0ULL, 0x7FFFFFFF, 0x80000000, 65536};
      return static_cast<T>(kEdges[choice % kEdges.size()]);
    }
    return static_cast<T>(choice >= 192 ? input_.Number<std::uint64_t>(sizeof(T)) : choice % 12);
  }

  template <typename T>
  std::uint8_t* MakePointer() {
    if (Null()) {
      return nullptr;
    }
    const std::size_t size = sizeof(T) == 1 ? kAddress : sizeof(T);
    std::uint8_t* bytes = Keep(size);
    input_.Fill(bytes, size);
    return bytes;
  }

  template <typename T>
  T MakeBufferPointer() {
    if (Null()) {
      return nullptr;
    }
    auto* pointer = reinterpret_cast<T>(Keep(sizeof(T)));
    constexpr std::size_t kMac = 6;
    *pointer = Null() ? nullptr
                      : reinterpret_cast<std::remove_pointer_t<T>>(
                            Keep(std::is_same_v<T, char**> ? kAddress : kMac));
    return pointer;
  }

  char* MakeText() {
    if (Null()) {
      return nullptr;
    }
    static constexpr std::array<std::uint8_t, 12> kDotted = {'0', '1', '2', '3', '4', '5',
                                                             '6', '7', '8', '9', '.', '-'};
    const std::size_t length = input_.Number(1);
    std::uint8_t* text = Keep(length + 1);
    const bool dotted = length < 20;
    for (std::size_t i = 0; i < length; ++i) {
      const auto byte = input_.Number<std::uint8_t>(1);
      text[i] = dotted ? kDotted[byte % kDotted.size()] : byte;
    }
    return reinterpret_cast<char*>(text);
  }

  FuzzInput& input_;
  std::vector<std::unique_ptr<std::uint8_t[]>> kept_;
};

// Where a getter hands out the library's own record, a host may write into it.
template <typename Result>
void WriteThrough(Result result, FuzzInput& input) {
  if constexpr (std::is_pointer_v<Result> && !std::is_const_v<std::remove_pointer_t<Result>>) {
    constexpr std::size_t kSize = sizeof(*result) == 1 ? 4 : sizeof(*result);
    if (input.Number(1) % 4 == 0) {
      input.Fill(reinterpret_cast<std::uint8_t*>(result), kSize);
    }
  }
}

template <typename Result, typename... Arguments>
void CallWithAnything(Result (*function)(Arguments...), FuzzInput& input) {
  AnyArgument any(input);
  std::tuple<Arguments...> arguments{any.Make<Arguments>()...};
  if constexpr (std::is_void_v<Result>) {
    std::apply(function, arguments);
  } else {
    WriteThrough(std::apply(function, arguments), input);
  }
}
