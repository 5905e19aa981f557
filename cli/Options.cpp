#include "cli/Options.h"

#include "cli/Ending.h"
#include "cli/Output.h"

#include <CLI/CLI.hpp>

namespace larkspan::cli {

namespace {

constexpr double kLongestTime = 1e9;

std::string checkTimeout(const std::string& text) {
  double seconds = 0;
  const bool number = CLI::detail::lexical_cast(text, seconds);
  return number && seconds > 0 && seconds <= kLongestTime ? "" : "must be a number of seconds above 0";
}

std::string checkLatency(const std::string& text) {
  double seconds = 0;
  const bool number = CLI::detail::lexical_cast(text, seconds);
  return number && seconds >= 0 && seconds <= kLongestTime ? "" : "must be a number of seconds";
}

const CLI::Validator kNotEmpty(
    [](const std::string& text) { return text.empty() ? "must not be empty" : std::string(); }, "",
    "not empty");

}  // namespace

Options parseArguments(int argc, char** argv) {
  Options options;
  CLI::App app(
      "Shows what fills the disk and what may go, as the storage extensions of this machine see it.\n",
      "larkspan");
  app.fallthrough();
  app.set_version_flag("--version", "larkspan " LARKSPAN_VERSION);
  app.add_flag("--json", options.json, "Write JSON, for programs");
  app.add_option("--timeout", options.timeout, "Give up when the answers are not there after so many seconds")
      ->type_name("SECONDS")
      ->capture_default_str()
      ->check(CLI::Validator(checkTimeout, "", "timeout"));
  app.footer(
      "Without a command: an overview of all extensions.\n"
      "ID is an extension's identifier or an ending that only one has: caches for corvane.larkspan.caches.\n"
      "LARKSPAN_EXTENSION_PATH lists further folders of extensions.\n"
      "\nExit status: 0, 1 when something failed, 2 for wrong usage, 128 + the signal that ended it.\n"
      "\nExamples:\n  larkspan\n  larkspan resources caches\n  larkspan --json --timeout 5");

  const auto add = [&](Options::Command command, const char* name, const char* description,
                       const char* examples) {
    CLI::App* sub = app.add_subcommand(name, description);
    sub->footer(std::string("Options of all commands: larkspan --help\n\nExamples:\n") + examples);
    sub->callback([&options, command] { options.command = command; });
    return sub;
  };
  const auto addWithIdentifier = [&](auto&&... arguments) {
    CLI::App* sub = add(arguments...);
    sub->add_option("ID", options.identifier, "The extension")->required();
    return sub;
  };
  using Command = Options::Command;
  add(Command::extensions, "extensions", "List the extensions that are installed",
      "  larkspan extensions\n  larkspan extensions --json --watch")
      ->add_flag("--watch", options.watch, "Print the set again whenever it changes, until Ctrl-C");
  addWithIdentifier(Command::info, "info", "Show what an extension says about itself",
                    "  larkspan info caches");
  addWithIdentifier(Command::resources, "resources", "List what an extension manages, the largest first",
                    "  larkspan resources caches\n"
                    "  larkspan resources caches --json | jq '.[] | select(._SIZE_ > 1e9) | ._NAME_'");
  addWithIdentifier(Command::tips, "tips", "List what an extension recommends", "  larkspan tips caches");
  CLI::App* ask =
      addWithIdentifier(Command::ask, "ask",
                        "Send any command with any items, and print the whole reply: for who writes an "
                        "extension. What a command deletes is gone",
                        "  larkspan ask caches INFO? --json\n"
                        "  larkspan resources caches --json | jq '[.[0]]' |\n"
                        "    larkspan ask caches 'DELETE_CONFIRM?' --items -");
  ask->add_option("COMMAND", options.askCommand, "Such as INFO?, RESOURCES? or DELETE_CONFIRM?")
      ->required()
      ->check(kNotEmpty);
  ask->add_option("--items", options.itemsFile,
                  "JSON file with an array of items to send; - is standard input")
      ->type_name("FILE");

  CLI::App* watch = add(Command::watch, "watch",
                        "Print what changes in folders and beneath them, a line for each batch, until Ctrl-C",
                        "  larkspan watch ~/Downloads\n"
                        "  larkspan watch ~ --latency 5 --ignore-metadata --json | jq -r '.paths[]'");
  watch->add_option("PATH", options.paths, "Folders or files; paths on a line stand between tabs")
      ->required()
      ->check(kNotEmpty);
  watch->add_option("--latency", options.latency, "How long a batch gathers changes from the first one on")
      ->type_name("SECONDS")
      ->capture_default_str()
      ->check(CLI::Validator(checkLatency, "", "latency"));
  watch->add_flag(
      "--ignore-metadata", options.ignoreMetadata,
      "Leave out what only got other attributes or another name, and a batch without anything else");

  CLI::App* size =
      add(Command::size, "size", "Show what folders hold: all that is on their volume, beneath them",
          "  larkspan size ~ --depth 2\n"
          "  larkspan size ~/.cache --exclude ~/.cache/thumbnails --json");
  size->add_option("PATH", options.paths, "Folders, or single files")->required()->check(kNotEmpty);
  size->add_option("--exclude", options.excluded, "Leave this out, and what is in it; may be repeated")
      ->type_name("PATH")
      ->check(kNotEmpty)
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  size->add_option("--depth", options.depth, "Show so many levels of folders, too, the largest first")
      ->type_name("N");

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    writeOutput(app.help());
    finish(0);
  } catch (const CLI::CallForVersion& version) {
    writeOutput(std::string(version.what()) + "\n");
    finish(0);
  } catch (const CLI::ParseError& error) {
    const auto subcommands = app.get_subcommands();
    const std::string name = subcommands.empty() ? "" : " " + subcommands[0]->get_name();
    fail(error.what() + (" (see larkspan" + name + " --help)"), 2);
  }
  return options;
}

}  // namespace larkspan::cli
