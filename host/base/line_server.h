// SPDX-License-Identifier: MIT
// A socket in the file system on which programs of the same user send lines and get a line for
// each.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "host/base/file_descriptor.h"
#include "host/base/result.h"

namespace ipplay {

// Belongs to one thread. Never blocks: a client that sends more than it may, or does not read its
// answers, is cut off.
class LineServer {
 public:
  static constexpr std::size_t kMostClients = 8;
  static constexpr std::size_t kLongestLine = 4096;

  using Answer = std::function<std::string(std::string_view line)>;

  // Creates `path`, for its owner alone. What a server left there that is gone is replaced; nothing
  // else is. `option` names it in a refusal.
  static Result<std::unique_ptr<LineServer>> Listen(const std::string& option,
                                                    const std::string& path);
  LineServer(const LineServer&) = delete;
  LineServer& operator=(const LineServer&) = delete;
  // Removes the path.
  ~LineServer();

  // Readable when there is something to serve.
  int Fd() const { return poll_.Get(); }
  // Takes clients, and answers the lines that have come, some of each client's at a time.
  void Serve(const Answer& answer);

 private:
  struct Client {
    FileDescriptor fd;
    std::string received;
  };

  LineServer(std::string path, FileDescriptor listener, FileDescriptor poll);

  void TakeClient();
  // False when the client is to go.
  bool ServeClient(Client& client, const Answer& answer);

  const std::string path_;
  FileDescriptor listener_;
  FileDescriptor poll_;
  std::map<int, Client> clients_;  // by descriptor
};

}  // namespace ipplay
