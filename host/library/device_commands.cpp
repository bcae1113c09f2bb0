// SPDX-License-Identifier: MIT
#include "host/library/device_commands.h"

// `ipplay devices` and `ipplay resolve`.
#include <fmt/format.h>
#include <CLI/App.hpp>

#include <memory>
#include <string>

#include "host/base/json.h"
#include "host/base/library_output.h"
#include "host/base/units.h"
#include "host/cli/option_builder.h"
#include "host/library/destination.h"
#include "host/library/library.h"

namespace ipplay {
namespace {

std::string JoinAddresses(const Adapter& adapter) {
  std::vector<std::string> texts;
  for (const auto* list : {&adapter.ipv4, &adapter.ipv6}) {
    for (const IpAddress& address : *list) {
      texts.push_back(FormatIp(address));
    }
  }
  return texts.empty() ? "-" : fmt::format("{}", fmt::join(texts, " "));
}

std::string LinkText(const Adapter& adapter) {
  return adapter.up ? (*adapter.up ? "up" : "down") : "unknown";
}

void PrintTable(const std::vector<Adapter>& adapters) {
  const auto row = [](const auto&... columns) {
    Print(Results(), "{:>2}  {:<15} {:<17}  {:<7}  {:<11}  {:<36}  {}\n", columns...);
  };
  row("N", "name", "MAC", "link", "speed", "description", "addresses");
  for (const Adapter& adapter : adapters) {
    row(adapter.index, adapter.name, FormatMac(adapter.mac), LinkText(adapter),
        adapter.speed ? FormatBitRate(static_cast<double>(*adapter.speed)) : "-",
        adapter.description, JoinAddresses(adapter));
  }
}

Json AddressList(const std::vector<IpAddress>& addresses) {
  auto list = Json::array();
  for (const IpAddress& address : addresses) {
    list.push_back(FormatIp(address));
  }
  return list;
}

struct ResolveOptions {
  IpAddress address;
  std::string device;
};

Result<int> Resolve(const ResolveOptions& options) {
  const Library library;
  const auto adapter = FindAdapter(library.Adapters(), options.device);
  if (!adapter) {
    return adapter.Error();
  }
  const auto destination = FindDestination(*adapter, options.address);
  if (!destination) {
    return destination.Error();
  }
  Print(Results(), "{}  {}\n", FormatMac(destination->mac), destination->how);
  return static_cast<int>(ExitStatus::kPlayed);
}

}  // namespace

Json DevicesJson(const std::vector<Adapter>& adapters) {
  auto list = Json::array();
  for (const Adapter& adapter : adapters) {
    Json item{{"index", adapter.index},
              {"name", adapter.name},
              {"description", adapter.description},
              {"mac", FormatMac(adapter.mac)},
              {"ipv4", AddressList(adapter.ipv4)},
              {"ipv4_netmasks", AddressList(adapter.ipv4_masks)},
              {"ipv6", AddressList(adapter.ipv6)},
              {"link", LinkText(adapter)}};
    item["mtu_bytes"] = adapter.mtu ? Json(*adapter.mtu) : nullptr;
    item["speed_bps"] = adapter.speed ? Json(*adapter.speed) : nullptr;
    list.push_back(std::move(item));
  }
  return {{"schema", kJsonSchema}, {"devices", std::move(list)}};
}

void RegisterDevices(CLI::App& app, Result<int>& outcome) {
  CLI::App* command = app.add_subcommand("devices", "List the adapters that can be played through");
  const auto json = std::make_shared<bool>(false);
  OptionBuilder(*command).Flag("--json", *json, "Print the list as JSON")->configurable(false);
  command->callback([json, &outcome] {
    const Library library;
    if (*json) {
      Print(Results(), "{}\n", TextOf(DevicesJson(library.Adapters()), 2));
    } else {
      PrintTable(library.Adapters());
    }
    outcome = static_cast<int>(ExitStatus::kPlayed);
  });
}

void RegisterResolve(CLI::App& app, Result<int>& outcome) {
  CLI::App* command =
      app.add_subcommand("resolve", "Find the MAC address that a frame to an address needs");
  const auto options = std::make_shared<ResolveOptions>();
  OptionBuilder add(*command);
  add.Value("ADDRESS", options->address, "IP", "an IPv4 or IPv6 address",
            "Destination of the frame", ParseIp)
      ->required()
      ->configurable(false);
  add.Value("--device", options->device, "NAME|N", "a name or a number",
            "Adapter by name or by its number in `ipplay devices`", ParseText)
      ->required()
      ->configurable(false);
  command->callback([options, &outcome] { outcome = Resolve(*options); });
}

}  // namespace ipplay
