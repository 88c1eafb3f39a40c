// How a fuzz input splits into a body (a page, a file) and the bytes that choose what is done with
// it: the body, then the choosing bytes, then one byte giving how many bytes choose. Seeds and
// crashing inputs thus read as plain text followed by a short tail.
#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

struct FuzzInput {
  FuzzInput(const std::uint8_t* data, std::size_t size)
      : tail(size == 0 ? 0 : std::min<std::size_t>(data[size - 1], size - 1)),
        body(reinterpret_cast<const char*>(data), size == 0 ? 0 : size - 1 - tail),
        choices(data + body.size(), tail) {}

  std::size_t tail;
  std::string body;
  FuzzedDataProvider choices;
};
