#include "larkspan/platform/ipc/TransportError.h"

namespace larkspan::platform {

Error transportError(TransportErrorCode code, std::string_view description) {
  return Error(kTransportErrorDomain, static_cast<int64_t>(code), description);
}

}  // namespace larkspan::platform
