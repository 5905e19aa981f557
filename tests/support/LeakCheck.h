#pragma once

namespace larkspan::tests {

/// From now on fails every test that leaves a descriptor, a thread or a child behind, and names what is left.
/// What the library keeps for the life of the process does not count: it is brought to life first, and its
/// threads are known by their names ("lks-"), but for "lks-reader" and "lks-walk": those go with their transport
/// and their walk.
void checkForLeaks();

}  // namespace larkspan::tests
