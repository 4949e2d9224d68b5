// kestrova-cli: the self-test and the MCP server for the tab library.
#include <cstdio>
#include <iostream>
#include <memory>
#include <string>

#include <CLI/CLI.hpp>

#include "info_command.h"
#include "mcp_command.h"
#include "selftest.h"

namespace {

// The conventional exit status for a command-line usage error.
constexpr int kUsageError = 64;

std::string usageLine(const CLI::App& app) {
  auto formatter = std::dynamic_pointer_cast<CLI::Formatter>(app.get_formatter());
  std::string path = app.get_name();
  for (const CLI::App* parent = app.get_parent(); parent != nullptr;
       parent = parent->get_parent()) {
    path = parent->get_name() + " " + path;
  }
  std::string usage = formatter ? formatter->make_usage(&app, path) : "";
  while (!usage.empty() && usage.back() == '\n') {
    usage.pop_back();
  }
  return usage;
}

// The deepest subcommand the parser had reached, for the usage line of an error.
const CLI::App* reached(const CLI::App& root) {
  const CLI::App* app = &root;
  for (;;) {
    auto subcommands = app->get_subcommands();
    if (subcommands.empty()) {
      return app;
    }
    app = subcommands.front();
  }
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Kestrova: Selbsttest und MCP-Server für die Tab-Bibliothek.", "kestrova-cli");
  app.require_subcommand(0, 1);

  kestrova::cli::SelftestOptions selftest;
  CLI::App* selftestCommand =
      app.add_subcommand("selftest", "Prüft alle Teile mit Beispiel-Daten in einem Temp-Ordner.");
  selftestCommand->add_flag("--no-ai", selftest.noAI,
                            "Apple Intelligence für den Test ausschalten (prüft die "
                            "Rückfallstufen).");

  kestrova::cli::McpOptions mcp;
  CLI::App* mcpCommand =
      app.add_subcommand("mcp", "MCP-Server über stdio (für Claude Desktop / Claude Code).");
  mcpCommand
      ->add_option("--library", mcp.library,
                   "Pfad zur library.json (Standard: ~/Library/Application "
                   "Support/Kestrova/library.json)")
      ->option_text("<library>");

  CLI::App* infoCommand =
      app.add_subcommand("info", "Zeigt, welche KI-Stufen auf diesem Mac laufen.");

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    std::cout << reached(app)->help();
    return 0;
  } catch (const CLI::CallForAllHelp&) {
    std::cout << app.help("", CLI::AppFormatMode::All);
    return 0;
  } catch (const CLI::ParseError& error) {
    std::cerr << "Error: " << error.what() << "\n" << usageLine(*reached(app)) << "\n";
    return kUsageError;
  }

  if (selftestCommand->parsed()) {
    return kestrova::cli::runSelftest(selftest);
  }
  if (mcpCommand->parsed()) {
    return kestrova::cli::runMcp(mcp);
  }
  if (infoCommand->parsed()) {
    return kestrova::cli::runInfo(std::cout);
  }
  // The root does nothing by itself: show what it offers.
  std::cout << app.help();
  return 0;
}
