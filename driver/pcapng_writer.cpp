// SPDX-License-Identifier: MIT
#include "driver/pcapng_writer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

namespace ipplayout {
namespace {

enum BlockType : std::uint32_t {
  kSectionBlock = 0x0A0D0D0A,
  kInterfaceBlock = 1,
  kPacketBlock = 6,
};
enum OptionCode : std::uint16_t {
  kEndOfOptions = 0,
  kComment = 1,
  kInterfaceName = 2,
  kApplication = 4,
  kTimeResolution = 9,
};

constexpr std::uint32_t kByteOrderMagic = 0x1A2B3C4D;
constexpr std::uint16_t kMajorVersion = 1;
constexpr std::uint32_t kUnknownLength = 0xFFFFFFFF;
constexpr std::uint16_t kEthernet = 1;
constexpr std::string_view kNanoseconds("\x09");  // 10 to the power of -9 seconds

constexpr std::size_t kSectionHead = 24;
constexpr std::size_t kInterfaceHead = 16;
constexpr std::size_t kPacketHead = 28;
constexpr std::size_t kTrailingLength = 4;
constexpr std::size_t kOptionHead = 4;
constexpr std::size_t kLongestOption = 0xFFFF;

constexpr std::size_t Padded(std::size_t size) {
  return (size + 3) / 4 * 4;
}

// 0 for an empty value, which is not written.
std::size_t OptionSize(std::string_view value) {
  return value.empty() ? 0 : kOptionHead + Padded(value.size());
}

// The size of a list of options: with its end, unless it is empty.
std::size_t ListSize(std::size_t options) {
  return options == 0 ? 0 : options + kOptionHead;
}

// Fills a block from its front.
class BlockFiller {
 public:
  BlockFiller(std::span<std::uint8_t> block, BlockType type)
      : at_(block.data()), size_(static_cast<std::uint32_t>(block.size())) {
    Put32(type);
    Put32(size_);
  }

  void Put16(std::uint16_t value) {
    *at_++ = static_cast<std::uint8_t>(value);
    *at_++ = static_cast<std::uint8_t>(value >> 8);
  }
  void Put32(std::uint32_t value) {
    Put16(static_cast<std::uint16_t>(value));
    Put16(static_cast<std::uint16_t>(value >> 16));
  }
  void PutPadded(const void* bytes, std::size_t size) {
    if (size > 0) {
      std::memcpy(at_, bytes, size);
    }
    std::memset(at_ + size, 0, Padded(size) - size);
    at_ += Padded(size);
  }
  void PutOption(OptionCode code, std::string_view value) {
    if (value.empty()) {
      return;
    }
    Put16(code);
    Put16(static_cast<std::uint16_t>(value.size()));
    PutPadded(value.data(), value.size());
    has_options_ = true;
  }
  void End() {
    if (has_options_) {
      Put16(kEndOfOptions);
      Put16(0);
    }
    Put32(size_);
  }

 private:
  std::uint8_t* at_;
  const std::uint32_t size_;
  bool has_options_ = false;
};

// At most `most` bytes of UTF-8 text, without a character cut in two.
std::string_view CutShort(std::string_view text, std::size_t most) {
  if (text.size() <= most) {
    return text;
  }
  const auto continues = [&](std::size_t at) {
    return (static_cast<unsigned char>(text[at]) & 0xC0) == 0x80;
  };
  while (most > 0 && continues(most)) {
    --most;
  }
  return text.substr(0, most);
}

}  // namespace

Opened<PcapngWriter> PcapngWriter::Open(const std::string& path, const Description& description) {
  auto file = OutputFile::Open(path);
  if (file.value == nullptr) {
    return NotOpened<PcapngWriter>(file.step, file.error);
  }
  std::unique_ptr<PcapngWriter> writer(new (std::nothrow) PcapngWriter(std::move(file.value)));
  if (writer == nullptr) {
    return NotOpened<PcapngWriter>("get memory", ENOMEM);
  }
  writer->WriteSection(description);
  return {std::move(writer)};
}

// The buffer is still empty: there is room.
void PcapngWriter::WriteSection(const Description& description) {
  const std::string_view application = CutShort(description.application, 255);
  BlockFiller section(
      file_->Append(kSectionHead + ListSize(OptionSize(application)) + kTrailingLength),
      kSectionBlock);
  section.Put32(kByteOrderMagic);
  section.Put16(kMajorVersion);
  section.Put16(0);
  section.Put32(kUnknownLength);
  section.Put32(kUnknownLength);
  section.PutOption(kApplication, application);
  section.End();

  const std::string_view name = CutShort(description.interface, 255);
  BlockFiller interface(
      file_->Append(kInterfaceHead + ListSize(OptionSize(name) + OptionSize(kNanoseconds)) +
                    kTrailingLength),
      kInterfaceBlock);
  interface.Put16(kEthernet);
  interface.Put16(0);
  interface.Put32(0);  // no limit of snapshots
  interface.PutOption(kInterfaceName, name);
  interface.PutOption(kTimeResolution, kNanoseconds);
  interface.End();
}

int PcapngWriter::Write(const Packet& packet, const platform::DeadlineWaiter& waiter) {
  static_assert(kMostPacketBytes + kLongestOption + 64 < OutputFile::kBufferBytes);
  if (packet.bytes.size() > kMostPacketBytes) {
    return EMSGSIZE;
  }
  const std::string_view comment = CutShort(packet.comment, kLongestOption);
  const std::size_t size =
      kPacketHead + Padded(packet.bytes.size()) + ListSize(OptionSize(comment)) + kTrailingLength;
  if (const int error = file_->MakeRoom(size, waiter); error != 0) {
    return error;
  }
  const auto time = static_cast<std::uint64_t>(packet.time.count());
  BlockFiller block(file_->Append(size), kPacketBlock);
  block.Put32(0);  // the only interface
  block.Put32(static_cast<std::uint32_t>(time >> 32));
  block.Put32(static_cast<std::uint32_t>(time));
  block.Put32(static_cast<std::uint32_t>(packet.bytes.size()));
  block.Put32(static_cast<std::uint32_t>(packet.original_length));
  block.PutPadded(packet.bytes.data(), packet.bytes.size());
  block.PutOption(kComment, comment);
  block.End();
  return 0;
}

}  // namespace ipplayout
