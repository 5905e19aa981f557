#pragma once

namespace larkspan::tests {

/// From now on fails every test that leaves a descriptor, a thread or a child behind, and names what is left.
/// What the library keeps for the life of the process does not count: it is brought to life first, and its
/// threads are known by their names ("lks-"), of which "lks-reader" is none: it goes with its transport.
void checkForLeaks();

}  // namespace larkspan::tests
