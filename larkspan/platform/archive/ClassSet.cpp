#include "larkspan/platform/archive/ClassSet.h"

namespace larkspan::platform {

const ClassSet& ClassSet::allValues() {
  static const ClassSet& all = *new ClassSet{ValueClass::array,  ValueClass::dictionary, ValueClass::set,
                                             ValueClass::string, ValueClass::number,     ValueClass::data,
                                             ValueClass::date,   ValueClass::url,        ValueClass::error};
  return all;
}

}  // namespace larkspan::platform
