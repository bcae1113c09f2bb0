// SPDX-License-Identifier: MIT
#include "host/measure/capture/flow_key.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <sys/random.h>

#include <array>
#include <bit>
#include <cstring>
#include <span>

namespace ipplay::measure {
namespace {

std::string EndpointText(const FlowKey& key, const std::array<std::uint8_t, 16>& address,
                         std::uint16_t port) {
  char text[INET6_ADDRSTRLEN] = "";
  const bool v4 = key.ip_version == 4;
  ::inet_ntop(v4 ? AF_INET : AF_INET6, address.data(), text, sizeof text);
  return v4 ? fmt::format("{}:{}", text, port) : fmt::format("[{}]:{}", text, port);
}

// Of this process, and known to nobody who sends frames.
std::array<std::uint64_t, 2> RandomKey() {
  std::array<std::uint64_t, 2> key{};
  // Without a random number the hash is still right, just known.
  [[maybe_unused]] const ssize_t length = ::getrandom(key.data(), sizeof key, GRND_NONBLOCK);
  return key;
}

// SipHash-1-3 (Aumasson and Bernstein) over whole words.
class SipState {
 public:
  explicit SipState(const std::array<std::uint64_t, 2>& key)
      : v_{key[0] ^ 0x736F6D6570736575U, key[1] ^ 0x646F72616E646F6DU, key[0] ^ 0x6C7967656E657261U,
           key[1] ^ 0x7465646279746573U} {}

  void Add(std::uint64_t word) {
    v_[3] ^= word;
    Round();
    v_[0] ^= word;
  }
  std::uint64_t Finish() {
    v_[2] ^= 0xFF;
    Round();
    Round();
    Round();
    return v_[0] ^ v_[1] ^ v_[2] ^ v_[3];
  }

 private:
  void Round() {
    v_[0] += v_[1];
    v_[2] += v_[3];
    v_[1] = std::rotl(v_[1], 13) ^ v_[0];
    v_[3] = std::rotl(v_[3], 16) ^ v_[2];
    v_[0] = std::rotl(v_[0], 32);
    v_[2] += v_[1];
    v_[0] += v_[3];
    v_[1] = std::rotl(v_[1], 17) ^ v_[2];
    v_[3] = std::rotl(v_[3], 21) ^ v_[0];
    v_[2] = std::rotl(v_[2], 32);
  }

  std::array<std::uint64_t, 4> v_;
};

std::uint64_t SipHash(std::span<const std::uint64_t> words) {
  static const auto key = RandomKey();
  SipState state(key);
  for (const std::uint64_t word : words) {
    state.Add(word);
  }
  state.Add(std::uint64_t{words.size() * sizeof(std::uint64_t)} << 56);
  return state.Finish();
}

}  // namespace

std::size_t FlowKeyHash::operator()(const FlowKey& key) const noexcept {
  std::array<std::uint64_t, sizeof(FlowKey) / sizeof(std::uint64_t)> words;
  std::memcpy(words.data(), &key, sizeof key);
  return SipHash(words);
}

std::size_t KeyedHash::operator()(std::uint64_t number) const noexcept {
  return SipHash(std::array{number});
}

std::string SourceText(const FlowKey& key) {
  return EndpointText(key, key.source, key.source_port);
}

std::string DestinationText(const FlowKey& key) {
  return EndpointText(key, key.destination, key.destination_port);
}

std::string VlanText(const FlowKey& key) {
  if (key.vlan == kNoVlan) {
    return "";
  }
  if (key.inner_vlan == kNoVlan) {
    return fmt::format("{}", key.vlan);
  }
  return fmt::format("{}.{}", key.vlan, key.inner_vlan);
}

}  // namespace ipplay::measure
