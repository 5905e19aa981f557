#include "larkspan/host/LKSExtensionNotifier.h"

namespace larkspan {

using platform::Error;
using platform::ExtensionMatcher;
using platform::Manifest;

namespace {
constexpr std::string_view kExtensionPoint = "corvane.larkspan";
}

LKSExtensionNotifier::LKSExtensionNotifier()
    : serialAccessQueue_(platform::DispatchQueue::makeSerial("corvane.LKSNotifier")) {}

std::shared_ptr<LKSExtensionNotifier> LKSExtensionNotifier::init() {
  return std::shared_ptr<LKSExtensionNotifier>(new LKSExtensionNotifier);
}

LKSExtensionNotifier::~LKSExtensionNotifier() { stopMatchingExtensions(); }

void LKSExtensionNotifier::start() {
  serialAccessQueue_->async([weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->beginMatchingExtensions();
  });
}

void LKSExtensionNotifier::stop() {
  serialAccessQueue_->async([weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->stopMatchingExtensions();
  });
}

std::shared_ptr<LKSExtensionNotifierDelegate> LKSExtensionNotifier::delegate() const {
  const std::lock_guard lock(mutex_);
  return delegate_.lock();
}

void LKSExtensionNotifier::setDelegate(const std::shared_ptr<LKSExtensionNotifierDelegate>& delegate) {
  const std::lock_guard lock(mutex_);
  delegate_ = delegate;
}

platform::Dictionary LKSExtensionNotifier::extensionMatchingAtrributes() const {
  return {{kExtensionPointNameKey, kExtensionPoint}};
}

std::shared_ptr<ExtensionMatcher> LKSExtensionNotifier::matchingContext() const {
  const std::lock_guard lock(mutex_);
  return matchingContext_;
}

void LKSExtensionNotifier::beginMatchingExtensions() {
  if (matchingContext()) return;
  auto matcher = std::make_shared<ExtensionMatcher>(
      *extensionMatchingAtrributes().get(kExtensionPointNameKey).string(),
      [weak = weak_from_this()](const std::optional<std::vector<Manifest>>& extensions,
                                const std::optional<Error>& error) {
        if (const auto self = weak.lock()) self->handleMatchingResponse(extensions, error);
      });
  const std::lock_guard lock(mutex_);
  // One that another thread has begun meanwhile goes after the lock.
  matchingContext_.swap(matcher);
}

void LKSExtensionNotifier::stopMatchingExtensions() {
  std::shared_ptr<ExtensionMatcher> matcher;
  {
    const std::lock_guard lock(mutex_);
    matcher.swap(matchingContext_);
  }
  if (matcher) matcher->end();
}

void LKSExtensionNotifier::handleMatchingResponse(const std::optional<std::vector<Manifest>>& extensions,
                                                  const std::optional<Error>& error) {
  if (extensions) {
    handleMatchingExtensions(*extensions);
  } else if (error) {
    handleError(*error);
  }
}

void LKSExtensionNotifier::handleMatchingExtensions(const std::vector<Manifest>& extensions) {
  const auto told = delegate();
  if (!told) return;
  std::vector<std::shared_ptr<LKSOpaqueExtension>> handles;
  handles.reserve(extensions.size());
  for (const Manifest& manifest : extensions) {
    handles.push_back(LKSOpaqueExtension::initWithExtension(std::make_shared<platform::Extension>(manifest)));
  }
  told->extensionNotifierDidGetExtensions(*this, handles);
}

void LKSExtensionNotifier::handleError(const Error& error) {
  if (const auto told = delegate()) told->extensionNotifierDidError(*this, error);
}

}  // namespace larkspan
