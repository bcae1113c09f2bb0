// SPDX-License-Identifier: MIT
#include "host/demo/demo_network.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <optional>

namespace ipplay::measure {
namespace {

constexpr const char* kOwnNamespace = "/proc/thread-self/ns/net";

void WriteFile(const char* path, const std::string& text) {
  std::ofstream(path) << text;
}

// Root of a user namespace has root's rights over the network namespaces that it makes.
bool BecomeRoot() {
  const uid_t user = ::geteuid();
  const gid_t group = ::getegid();
  if (user == 0) {
    return true;
  }
  if (::unshare(CLONE_NEWUSER) != 0) {
    return false;
  }
  WriteFile("/proc/self/setgroups", "deny");
  WriteFile("/proc/self/uid_map", fmt::format("0 {} 1", user));
  WriteFile("/proc/self/gid_map", fmt::format("0 {} 1", group));
  return true;
}

// A new namespace, which the calling thread is then in.
FileDescriptor NewNamespace() {
  if (::unshare(CLONE_NEWNET) != 0) {
    return FileDescriptor();
  }
  // Neighbour discovery would send frames of its own. Where it cannot be turned off, the
  // measurement counts them as not UDP.
  WriteFile("/proc/sys/net/ipv6/conf/default/disable_ipv6", "1");
  return FileDescriptor(::open(kOwnNamespace, O_RDONLY | O_CLOEXEC));
}

// The commands of ip(8), one in each line.
bool RunIp(const std::string& commands) {
  // The command is fixed; only its input differs.
  std::FILE* const ip = ::popen("exec ip -batch -", "w");  // NOLINT(cert-env33-c)
  if (ip == nullptr) {
    return false;
  }
  const bool written = std::fwrite(commands.data(), 1, commands.size(), ip) == commands.size();
  return ::pclose(ip) == 0 && written;
}

Failure Refused() {
  return {ExitStatus::kNoAccess, fmt::format("cannot make network namespaces: {}; run as "
                                             "root (in a container: a privileged one)",
                                             std::strerror(errno))};
}

Failure NoPair() {
  return {ExitStatus::kFailed, "cannot make a veth pair with ip(8); its package is iproute2"};
}

}  // namespace

Result<DemoNetwork> DemoNetwork::Create() {
  if (!BecomeRoot()) {
    return Refused();
  }
  DemoNetwork network(NewNamespace());
  if (!network.near_.IsOpen()) {
    return Refused();
  }
  const FileDescriptor far = NewNamespace();
  if (!far.IsOpen()) {
    return Refused();
  }
  const bool made =
      RunIp(fmt::format("link add {} type veth peer name {} netns /proc/{}/fd/{}\n"
                        "address add {}/24 dev {}\n"
                        "link set {} up\n",
                        kFar, kNear, ::getpid(), network.near_.Get(), kFarAddress, kFar, kFar)) &&
      network.EnterNear() &&
      RunIp(fmt::format("address add 10.77.0.1/24 dev {}\n"
                        "link set {} up\n",
                        kNear, kNear)) &&
      ::setns(far.Get(), CLONE_NEWNET) == 0;
  if (!made) {
    return NoPair();
  }
  return network;
}

std::optional<Failure> DemoNetwork::EnterWhole() {
  if (!BecomeRoot() || !NewNamespace().IsOpen()) {
    return Refused();
  }
  const bool made =
      RunIp(fmt::format("link set lo up\n"
                        "link add {0} type veth peer name {1}\n"
                        "address add 10.77.0.1/24 dev {1}\n"
                        "link set {0} up\n"
                        "link set {1} up\n"
                        "route add 224.0.0.0/4 dev {1}\n",
                        kFar, kNear));
  return made ? std::nullopt : std::optional(NoPair());
}

bool DemoNetwork::EnterNear() const {
  return ::setns(near_.Get(), CLONE_NEWNET) == 0;
}

}  // namespace ipplay::measure
