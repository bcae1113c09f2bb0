#include "tests/support/test_network.h"

#include <fcntl.h>
#include <pcap.h>
#include <poll.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

namespace ipplayout {
namespace {

constexpr int kLargestFrame = 4096;
constexpr int kCollectTimeoutMs = 10'000;

void Check(bool condition, const std::string& what) {
  if (!condition) {
    throw std::runtime_error(what);
  }
}

platform::Descriptor CurrentNamespace() {
  platform::Descriptor descriptor(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
  Check(descriptor.IsOpen(), "cannot open the current network namespace");
  return descriptor;
}

void MoveTo(const platform::Descriptor& target) {
  Check(setns(target.Get(), CLONE_NEWNET) == 0, "cannot enter a network namespace");
}

void RunShell(const std::string& command) {
  Check(std::system(command.c_str()) == 0, "failed: " + command);
}

std::string Text(const MacAddress& mac) {
  char text[18];
  std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3],
                mac[4], mac[5]);
  return text;
}

}  // namespace

NetworkNamespace::NetworkNamespace() {
  const platform::Descriptor home = CurrentNamespace();
  Check(unshare(CLONE_NEWNET) == 0, "cannot make a network namespace: not root?");
  descriptor_ = CurrentNamespace();
  MoveTo(home);
  SetSysctl("net/ipv6/conf/all/disable_ipv6", "1");
  SetSysctl("net/ipv6/conf/default/disable_ipv6", "1");
  Run("ip link set lo up");
}

NetworkNamespace::Visit::Visit(const NetworkNamespace& visited) : home_(CurrentNamespace()) {
  MoveTo(visited.descriptor_);
}

NetworkNamespace::Visit::~Visit() {
  if (setns(home_.Get(), CLONE_NEWNET) != 0) {
    std::abort();  // whatever follows would run in the wrong network
  }
}

void NetworkNamespace::Run(const std::string& command) const {
  const Visit visit(*this);
  RunShell(command);
}

void NetworkNamespace::SetSysctl(const std::string& name, const std::string& value) const {
  const Visit visit(*this);
  std::ofstream file("/proc/sys/" + name);
  file << value << std::flush;
  Check(file.good(), "cannot set " + name);
}

std::string NetworkNamespace::Path() const {
  return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(descriptor_.Get());
}

void MakeVeth(const VethEnd& one, const VethEnd& other) {
  one.where.Run("ip link add name " + one.name + " address " + Text(one.mac) +
                " type veth peer name " + other.name + " address " + Text(other.mac) + " netns " +
                other.where.Path());
  one.where.Run("ip link set " + one.name + " up");
  other.where.Run("ip link set " + other.name + " up");
}

TestNetwork::TestNetwork() {
  MakeVeth({near, "near0", kNearMac}, {far, "far0", kFarMac});
}

void AddIPv6Address(const NetworkNamespace& where, const std::string& interface,
                    const std::string& address) {
  where.Run("ip link set " + interface + " addrgenmode none");
  where.SetSysctl("net/ipv6/conf/" + interface + "/disable_ipv6", "0");
  where.Run("ip address add " + address + " dev " + interface + " nodad");
}

void FrameTap::Close::operator()(pcap* capture) const {
  pcap_close(capture);
}

FrameTap::FrameTap(const NetworkNamespace& where, const std::string& interface) {
  const NetworkNamespace::Visit visit(where);
  char error[PCAP_ERRBUF_SIZE] = {};
  capture_.reset(pcap_create(interface.c_str(), error));
  Check(capture_ != nullptr, error);
  pcap_set_promisc(capture_.get(), 1);
  pcap_set_snaplen(capture_.get(), kLargestFrame);  // also the room that each frame takes
  pcap_set_immediate_mode(capture_.get(), 1);
  pcap_set_buffer_size(capture_.get(), 32 * 1024 * 1024);
  Check(pcap_activate(capture_.get()) == 0, pcap_geterr(capture_.get()));
  Check(pcap_setdirection(capture_.get(), PCAP_D_IN) == 0, pcap_geterr(capture_.get()));
  Check(pcap_setnonblock(capture_.get(), 1, error) == 0, error);
}

std::optional<TappedFrame> FrameTap::Next() {
  pcap_pkthdr* header = nullptr;
  const u_char* bytes = nullptr;
  if (pcap_next_ex(capture_.get(), &header, &bytes) != 1) {
    return std::nullopt;
  }
  return TappedFrame{
      {bytes, bytes + header->caplen},
      std::chrono::seconds(header->ts.tv_sec) + std::chrono::microseconds(header->ts.tv_usec)};
}

std::vector<TappedFrame> FrameTap::Collect(std::size_t count) {
  std::vector<TappedFrame> frames;
  while (frames.size() < count) {
    if (auto frame = Next()) {
      frames.push_back(std::move(*frame));
      continue;
    }
    pollfd readable{pcap_fileno(capture_.get()), POLLIN, 0};
    if (poll(&readable, 1, kCollectTimeoutMs) != 1) {
      break;
    }
  }
  return frames;
}

std::vector<TappedFrame> FrameTap::Drain() {
  std::vector<TappedFrame> frames;
  while (auto frame = Next()) {
    frames.push_back(std::move(*frame));
  }
  return frames;
}

void FrameTap::Send(std::span<const std::uint8_t> frame) {
  Check(pcap_inject(capture_.get(), frame.data(), frame.size()) == static_cast<int>(frame.size()),
        "cannot send a frame");
}

std::string Dissect(std::span<const std::uint8_t> frame, const std::vector<std::string>& fields) {
  char path[] = "/tmp/ipplayout-dissect-XXXXXX";
  const platform::Descriptor file(mkstemp(path));
  Check(file.IsOpen(), "cannot make a temporary file");
  pcap_t* format = pcap_open_dead(DLT_EN10MB, 65535);
  pcap_dumper_t* dumper = pcap_dump_open(format, path);
  pcap_pkthdr header{};
  header.caplen = header.len = static_cast<bpf_u_int32>(frame.size());
  pcap_dump(reinterpret_cast<u_char*>(dumper), &header, frame.data());
  pcap_dump_close(dumper);
  pcap_close(format);

  std::string command = "tshark -r " + std::string(path) + " -T fields";
  for (const std::string& field : fields) {
    command += " -e " + field;
  }
  FILE* output = popen((command + " 2>/dev/null").c_str(), "r");
  Check(output != nullptr, "cannot run tshark");
  std::string text;
  for (int c = std::fgetc(output); c != EOF && c != '\n'; c = std::fgetc(output)) {
    text += static_cast<char>(c);
  }
  const int status = pclose(output);
  unlink(path);
  Check(status == 0, "failed: " + command);
  return text;
}

}  // namespace ipplayout
