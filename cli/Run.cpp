#include "cli/Run.h"

#include "cli/Ending.h"
#include "cli/ItemsFile.h"
#include "cli/Json.h"
#include "cli/Output.h"
#include "cli/Progress.h"
#include "cli/Sizes.h"
#include "cli/Text.h"
#include "cli/View.h"
#include "larkspan/platform/appext/ExtensionDirectories.h"
#include "larkspan/platform/dispatch/DispatchQueue.h"

#include <algorithm>

namespace larkspan::cli {

using platform::Array;
using platform::Dictionary;
using platform::DispatchQueue;
using platform::Value;
using Command = Options::Command;

namespace {

/// Says where there is nothing.
std::string noExtensionsText() {
  std::string text;
  for (const std::string& folder : platform::extensionDirectories())
    text += (text.empty() ? "" : ", ") + folder;
  return printable("there are no extensions in " + text);
}

/// The extension that is called so, or whose identifier alone ends so; there is no return if there is none.
Handle select(const std::vector<Handle>& extensions, const std::string& ending) {
  std::vector<Handle> fitting;
  std::string names;
  for (const Handle& handle : extensions) {
    const std::string& identifier = handle->identifier();
    if (identifier == ending) return handle;
    if (!identifier.ends_with(ending)) continue;
    fitting.push_back(handle);
    names += (names.empty() ? "" : ", ") + identifier;
  }
  if (fitting.size() == 1) return fitting[0];
  const std::string quoted = "\"" + ending + "\"";
  if (extensions.empty()) fail(noExtensionsText());
  if (!fitting.empty()) fail(quoted + " may be any of " + names);
  fail("there is no extension " + quoted + "; larkspan extensions says which there are");
}

Array dictionariesOf(const std::vector<Handle>& extensions) {
  std::vector<Value> result;
  for (const Handle& handle : extensions) {
    const auto& manifest = handle->underlyingExtension()->manifest();
    result.push_back(Dictionary{{"identifier", manifest.identifier},
                                {"name", manifest.name},
                                {"manifest", manifest.path},
                                {"executable", executableOf(manifest)}});
  }
  return Array(std::move(result));
}

Dictionary dictionaryOf(const Items& info) { return info.empty() ? Dictionary() : info.front().userInfo(); }

Dictionary dictionaryOf(const Overview& overview) {
  Dictionary result{{"identifier", overview.extension->identifier()}};
  if (overview.info) result.set("info", dictionaryOf(*overview.info));
  if (overview.resources) result.set("resources", arrayFromItems(*overview.resources));
  if (overview.tips) result.set("tips", arrayFromItems(*overview.tips));
  if (overview.error) result.set("error", *overview.error);
  return result;
}

/// One run of the program. All of it happens on the main queue, but for reading the items.
class Run {
 public:
  explicit Run(const Options& options) : options_(options), asking_(options.timeout, [this] { late(); }) {}

  void begin() {
    asking_.find([this](const std::vector<Handle>& extensions) { found(extensions); });
    if (!options_.itemsFile) return;
    DispatchQueue::global()->async([this, path = *options_.itemsFile] {
      DispatchQueue::main()->async([this, result = readItemsFile(path)] {
        if (const auto* reason = std::get_if<std::string>(&result)) fail(*reason);
        items_ = std::get<Items>(result);
        askIfReady();
      });
    });
  }

 private:
  void found(const std::vector<Handle>& extensions) {
    if (options_.command == Command::extensions) return printExtensions(extensions);
    if (found_) return;
    found_ = true;
    if (options_.command == Command::overview) return askAll(extensions);
    extension_ = select(extensions, options_.identifier);
    askIfReady();
  }

  /// The time has passed, and whoever was asked has been answered for.
  void late() {
    if (!found_) fail("the extensions were not found " + asking_.limitText());
    if (options_.itemsFile && !items_) fail("the items could not be read " + asking_.limitText());
  }

  void printExtensions(const std::vector<Handle>& extensions) {
    if (options_.json) {
      writeOutput(jsonText(dictionariesOf(extensions), !options_.watch) + "\n");
    } else {
      if (found_) writeOutput("\n");
      writeOutput(extensions.empty() ? noExtensionsText() + "\n" : extensionsText(extensions, outputWidth()));
    }
    found_ = true;
    if (!options_.watch) finish(0);
  }

  void askIfReady() {
    if (!extension_ || (options_.itemsFile && !items_)) return;
    progress_.emplace();
    const auto done = [this](const Answer& answer) { print(answer); };
    switch (options_.command) {
      case Command::info:
        return asking_.fetch(std::make_shared<LKSFetchExtensionInfoOperation>(), extension_, done);
      case Command::resources:
        return asking_.fetch(std::make_shared<LKSFetchResourcesOperation>(), extension_, done);
      case Command::tips:
        return asking_.fetch(std::make_shared<LKSFetchRecommendationsOperation>(), extension_, done);
      case Command::ask:
        return asking_.exchange(options_.askCommand, items_.value_or(Items()), extension_, done);
      case Command::overview:
      case Command::extensions:
      case Command::watch:
      case Command::size:
        break;
    }
  }

  std::string textOf(const Items& items) const {
    const bool isInfo = options_.command == Command::info;
    if (options_.json)
      return jsonText(isInfo ? Value(dictionaryOf(items)) : Value(arrayFromItems(items)), true) + "\n";
    if (isInfo) return items.empty() ? "" : infoText(items.front());
    if (options_.command == Command::resources) return resourcesText(items, outputWidth());
    return options_.command == Command::tips ? tipsText(items) : itemsText(items);
  }

  void print(const Answer& answer) {
    progress_.reset();
    Progress::erase();
    if (answer.items) writeOutput(textOf(*answer.items));
    if (answer.error) fail(*answer.error);
    finish(0);
  }

  void askAll(const std::vector<Handle>& extensions) {
    for (const Handle& handle : extensions) overviews_.push_back({handle, {}, {}, {}, {}});
    unanswered_ = overviews_.size();
    if (unanswered_ == 0) return printOverviews();
    progress_.emplace();
    for (Overview& overview : overviews_) {
      ask<LKSFetchExtensionInfoOperation>(overview, &Overview::info, [this, &overview] {
        ask<LKSFetchResourcesOperation>(overview, &Overview::resources, [this, &overview] {
          ask<LKSFetchRecommendationsOperation>(overview, &Overview::tips, [this] { oneAnswered(); });
        });
      });
    }
  }

  /// Goes on when there is an answer. An extension that failed once is not asked further.
  template <typename Operation, typename Next>
  void ask(Overview& overview, std::optional<Items> Overview::*field, Next next) {
    asking_.fetch(std::make_shared<Operation>(), overview.extension,
                  [=, this, &overview](const Answer& answer) {
                    overview.*field = answer.items;
                    overview.error = answer.error;
                    if (answer.error) return oneAnswered();
                    next();
                  });
  }

  void oneAnswered() {
    if (--unanswered_ == 0) printOverviews();
  }

  void printOverviews() {
    progress_.reset();
    Progress::erase();
    std::string text;
    std::vector<Value> dictionaries;
    bool isWorthwhile = overviews_.empty();
    for (const Overview& overview : overviews_) {
      isWorthwhile |= overview.info.has_value();
      if (options_.json) {
        dictionaries.push_back(dictionaryOf(overview));
        continue;
      }
      const bool isHidden = overview.info && dictionaryOf(*overview.info).get(kHiddenKey).boolValue();
      if (!isHidden) text += (text.empty() ? "" : "\n") + overviewText(overview, outputWidth());
    }
    if (options_.json) text = jsonText(Array(std::move(dictionaries)), true) + "\n";
    if (overviews_.empty() && !options_.json) text = noExtensionsText() + "\n";
    writeOutput(text);
    if (!isWorthwhile) fail("no extension answered");
    finish(0);
  }

  const Options options_;
  Asking asking_;
  bool found_ = false;
  Handle extension_;
  std::optional<Items> items_;
  std::optional<Progress> progress_;
  std::vector<Overview> overviews_;  // Does not change while its elements are asked.
  std::size_t unanswered_ = 0;
};

}  // namespace

void run(const Options& options) {
  if (options.command == Command::size) return runSizes(options);
  // Lives as long as the program: answers may come until its end.
  static auto* const current = new Run(options);
  current->begin();
}

}  // namespace larkspan::cli
