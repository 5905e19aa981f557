#pragma once

#include <string>
#include <vector>

namespace larkspan::trash {

/// Where the disks of this machine are mounted (proc_pid_mountinfo(5)), each path once: file systems on block
/// devices, in memory, and ZFS. File systems over the network are left out, as looking at one whose server is
/// away may take forever. LARKSPAN_MOUNTINFO names another file of that format to read, so that a test that
/// empties the trash does not empty anybody's.
std::vector<std::string> localMountPoints();

}  // namespace larkspan::trash
