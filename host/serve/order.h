// SPDX-License-Identifier: MIT
// An order of a playout as a client gives it, whose input is one of the media files or a live
// stream, and as a channel takes it.
#pragma once

#include <string>
#include <vector>

#include "host/base/file_descriptor.h"
#include "host/base/result.h"
#include "host/lineup/channel_order.h"
#include "host/serve/media_store.h"

namespace ipplay::serve {

struct Order {
  std::vector<ChannelOption> options;  // what the channel opens in place of the input
  std::string input;                   // as the client gave it
  std::string opened;                  // what stands for it; empty for a live stream
  FileDescriptor file;                 // of the input, for as long as it may be played
  std::string command;                 // the equivalent command line
};

// Refused: inputs that are no media, and everything that writes a file. What else is wrong is the
// channel's to say.
Result<Order> MakeOrder(std::vector<ChannelOption> options, const MediaStore& media);

// For a shell (POSIX, 2.2.2).
std::string ShellQuoted(const std::string& word);

}  // namespace ipplay::serve
