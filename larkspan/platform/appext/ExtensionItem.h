#pragma once

#include "larkspan/platform/archive/Archivable.h"
#include "larkspan/platform/archive/ClassSet.h"
#include "larkspan/platform/base/Dictionary.h"
#include "larkspan/platform/base/Value.h"

namespace larkspan::platform {

/// The unit of requests and replies between a host and an extension: a user-info dictionary with an identity.
/// Owner:  std::shared_ptr.
/// Thread: not to be changed from two threads at a time.
class ExtensionItem final : public Archivable {
 public:
  const Dictionary& userInfo() const { return userInfo_; }
  void setUserInfo(Dictionary userInfo) { userInfo_ = std::move(userInfo); }

  /// Stores under the key, in place where the dictionary is not shared; a new dictionary has room for 8
  /// entries. A none value removes the key, and touches nothing if it is not there.
  void setUserInfoObject(Value object, Key key);

  /// The classes of the values an item may hold when it comes from another process, the item's own among
  /// them.
  static const ClassSet& itemClasses();
  static const ObjectClass& archiveClass();
  const ObjectClass& objectClass() const override { return archiveClass(); }
  void encodeWithCoder(KeyedArchiver& coder) const override;
  const Dictionary* row() const override { return &userInfo_; }
  static std::shared_ptr<Object> initWithCoder(KeyedUnarchiver& coder);

  std::shared_ptr<Object> deepCopy() const override;
  /// "<ExtensionItem {…}>" with the dictionary.
  std::string description() const override;

 private:
  static std::shared_ptr<Object> makeFromRow(Dictionary row);

  Dictionary userInfo_;
};

}  // namespace larkspan::platform
