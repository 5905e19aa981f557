#pragma once

#include <chrono>
#include <cstddef>

/// What bounds the memory and time that input from other processes and from files may cost.
namespace larkspan::platform::limits {

/// Bytes of one frame, reply or archive: stops a peer from making us buffer without end.
inline constexpr std::size_t kMaximumFrame = std::size_t{32} << 20;
/// Containers and tags open along one path: stops nesting from exhausting the stack.
inline constexpr unsigned kMaximumDepth = 64;
/// Data items of one frame or reply, with keys, containers and tags counted as one each: stops a frame of tiny items
/// from becoming values many times its size.
inline constexpr std::size_t kMaximumElements = 2'000'000;
/// Keys that `internKeys` keeps for the life of the process: stops the table of known keys from filling up,
/// which would slow each look-up.
inline constexpr std::size_t kMaximumInternedKeys = 1024;

/// Lists of keys that live forever: stops a program that sets its keys in ever new orders from taking memory for good.
inline constexpr std::size_t kMaximumKeyLists = 4096;

/// Bytes that wait to be sent to one peer: stops a peer that does not read from making us keep everything.
/// Room for two of the largest frames.
inline constexpr std::size_t kMaximumOutbound = 2 * kMaximumFrame + 1024;
/// What a frame that waits counts for at least: the memory around the smallest.
inline constexpr std::size_t kLeastOutbound = 512;

/// Channels that are open at a time on one connection: stops a peer that opens them without end from making us keep an
/// object for each.
inline constexpr std::size_t kMaximumChannels = 1024;

/// Clients of a service at a time: stops a program that connects without end from taking its threads and descriptors.
inline constexpr int kMaximumClients = 128;

/// Bytes of an extension's standard error, and as many about its callbacks, that go to the log within
/// `kPrintWindow`, each line counted with `kPrintOverhead` more: stops one that prints or calls without end
/// from filling the log.
inline constexpr std::size_t kMaximumPrint = 128 * 1024;
inline constexpr std::size_t kPrintOverhead = 64;
inline constexpr std::chrono::seconds kPrintWindow{10};
/// Bytes of an error's description in one line of the log: stops a peer's error from filling it.
inline constexpr std::size_t kMaximumLoggedError = 1024;

/// Starts of an extension that end before it answers anything, or of a service that end before it greets, within
/// `kStartWindow`: stops one that is broken from being started over and over.
inline constexpr std::size_t kMaximumFailedStarts = 5;
inline constexpr std::chrono::minutes kStartWindow{3};

}  // namespace larkspan::platform::limits
