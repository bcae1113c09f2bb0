// SPDX-License-Identifier: MIT
#include "host/serve/serve_command.h"

#include <CLI/App.hpp>

#include <memory>

#include "host/cli/option_builder.h"
#include "host/serve/serve_run.h"

namespace ipplay {
namespace {

// Given once for each value.
void AddList(CLI::App& command, const std::string& name, std::vector<std::string>& values,
             const std::string& type, const std::string& help) {
  command.add_option(name, values, help)->type_name(type)->allow_extra_args(false);
}

}  // namespace

void RegisterServe(CLI::App& app, Result<int>& outcome) {
  CLI::App* command = app.add_subcommand(
      "serve", "Play and measure many streams from a page in the browser and over HTTP");
  const auto options = std::make_shared<serve::ServeOptions>();
  OptionBuilder add(*command);
  add.Value("--listen", options->listen, "ADDRESS:PORT", "an address and a port",
            "Where to listen; beyond this machine with --token-file alone", ParseText,
            "127.0.0.1:8080");
  AddList(*command, "--media", options->media, "DIR",
          "Folder whose files may be played; may be repeated");
  add.Value("--token-file", options->token_file, "FILE", "a file",
            "File of mode 0600 with the token that clients have to give", ParseText);
  AddList(
      *command, "--host", options->hosts, "NAME",
      "Name by which clients reach the server, besides localhost and addresses; may be repeated");
  command->footer("docs/serve.md shows the first five minutes.");
  command->callback([options, &outcome] { outcome = serve::RunServer(*options); });
}

}  // namespace ipplay
