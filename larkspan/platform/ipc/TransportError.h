#pragma once

#include "larkspan/platform/base/Error.h"

#include <cstdint>
#include <string_view>

namespace larkspan::platform {

/// Domain of everything that goes wrong between two processes; the code is a `TransportErrorCode`.
inline constexpr std::string_view kTransportErrorDomain = "LKSExtensionOperationErrorDomain";

enum class TransportErrorCode : int64_t {
  interrupted = 1,  ///< The peer went away before it answered; the next call starts it again.
  invalidated,      ///< The connection was ended on this side for good.
  launchFailed,     ///< The peer could not be started.
  launchDelayed,    ///< The peer ended too often right after its start and is not started for a while.
  violation,        ///< The peer broke the protocol.
  notAnswered,      ///< The peer dropped the call without an answer.
  unknownMethod,    ///< The peer does not know the method.
  notReading,       ///< The peer does not take what is sent to it.
  notSendable,      ///< A message that is too large, or holds what cannot be archived.
  noReply,          ///< A reply came that carries nothing.
  exception,        ///< An exception left the work of an operation.
};

/// An error with that code and description.
Error transportError(TransportErrorCode code, std::string_view description);
/// Whether the error is one with that code.
bool isTransportError(const Error& error, TransportErrorCode code);

}  // namespace larkspan::platform
