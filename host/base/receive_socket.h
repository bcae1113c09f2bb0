// SPDX-License-Identifier: MIT
// A UDP socket that receives a stream, from a multicast group or at an address of this host.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "host/base/address.h"
#include "host/base/file_descriptor.h"
#include "host/base/result.h"

namespace ipplay {

class ReceiveSocket {
 public:
  struct Datagram {
    std::span<const std::uint8_t> bytes;
    std::int64_t time_ns = 0;  // of its arrival in the kernel, since 1970
  };

  // Joins a multicast group on `interface`, or where it is empty on the one that the system routes
  // it to. Messages begin with "INPUT: ".
  static Result<ReceiveSocket> Open(const Endpoint& from, const std::string& interface);

  // To wait for datagrams.
  int Get() const { return fd_.Get(); }
  // Those that are there, up to a limit; does not wait. Valid until the next call.
  std::span<const Datagram> Receive();
  // How many the kernel had no room for.
  std::uint64_t Dropped() const { return dropped_; }

 private:
  struct Buffers;
  struct BuffersDeleter {
    void operator()(Buffers* buffers) const;
  };

  ReceiveSocket(FileDescriptor fd, const Endpoint& from);

  FileDescriptor fd_;
  Endpoint from_;
  std::unique_ptr<Buffers, BuffersDeleter> buffers_;
  std::vector<Datagram> datagrams_;
  std::uint64_t dropped_ = 0;
};

}  // namespace ipplay
