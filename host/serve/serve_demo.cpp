// SPDX-License-Identifier: MIT
#include "host/serve/serve_demo.h"

#include "host/demo/demo_media.h"
#include "host/demo/demo_network.h"
#include "host/serve/serve_run.h"

namespace ipplay::serve {
namespace {

// One as it should be, one that loses datagrams, one whose gaps jitter.
constexpr const char* kChannels = R"(
[defaults]
device = "near"
loop = "forever"
restamp = true

[[channel]]
name = "news"
input = "demo/news.ts"
to = "rtp://239.77.0.1:5004"

[[channel]]
name = "sport, with losses"
input = "demo/sport.ts"
to = "rtp://239.77.0.2:5004"
lose = "1/5000"

[[channel]]
name = "film, with jitter"
input = "demo/film.ts"
to = "rtp://239.77.0.3:5004"
jitter = "gaussian:30%"
)";

std::optional<Failure> EnterDemo() {
  auto failure = measure::DemoNetwork::EnterWhole();
  return failure ? failure : measure::MakeDemoMedia();
}

}  // namespace

Result<int> ServeDemo(const std::string& listen, const std::string& token_file) {
  ServeOptions options;
  options.listen = listen;
  options.token_file = token_file;
  options.media = {measure::kDemoMediaFolder};
  options.enter = EnterDemo;
  options.first_lineup = kChannels;
  options.first_meter = measure::DemoNetwork::kFar;
  return RunServer(options);
}

}  // namespace ipplay::serve
