#include "larkspan/platform/ipc/TransportError.h"

namespace larkspan::platform {

Error transportError(TransportErrorCode code, std::string_view description) {
  return Error(kTransportErrorDomain, static_cast<int64_t>(code), description);
}

bool isTransportError(const Error& error, TransportErrorCode code) {
  return error.domain() == kTransportErrorDomain && error.code() == static_cast<int64_t>(code);
}

}  // namespace larkspan::platform
