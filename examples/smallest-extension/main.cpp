// Shows what lies in the folder Downloads.

#include "larkspan/provider/ExtensionMain.h"

#include <cstdlib>
#include <filesystem>

class Downloads final : public larkspan::LKSExtension {
  std::vector<larkspan::LKSResource> resourceItems() override {
    std::vector<larkspan::LKSResource> resources;
    const char* home = getenv("HOME");
    std::error_code unreadable;
    for (const auto& entry :
         std::filesystem::directory_iterator(std::string(home ? home : "") + "/Downloads", unreadable)) {
      const auto url = larkspan::platform::URL::file(entry.path().native());
      auto resource = larkspan::LKSResource::initLKSResourceItemWithFileURL(url).value();
      resource.setLks_size(larkspan::LKSResource::lks_calculateSizeOfItemAtURL(url));
      resource.setLks_deletable(false);
      resources.push_back(resource);
    }
    return resources;
  }
  int64_t totalSpaceUsed() override {
    int64_t total = 0;
    for (const auto& resource : resourceItems()) total += resource.lks_size();
    return total;
  }
};

int main() { return larkspan::extensionMain<Downloads>(); }
