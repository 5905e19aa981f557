#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace larkspan::platform {

// Where the user's files lie (freedesktop.org's basedir-spec). As there, a variable that holds no absolute path
// counts as none; a program that runs with other rights than its caller's sees none (secure_getenv(3)).
// Thread: any; read from the environment each time.

/// $HOME, else the home folder of the password database; empty where there is neither.
std::string userHome();
/// $XDG_DATA_HOME, else .local/share in `userHome`; empty where there is neither.
std::string userDataFolder();
/// $XDG_CACHE_HOME, else .cache in `userHome`; empty where there is neither.
std::string userCacheFolder();
/// The folders of a colon list: its absolute entries, without slashes at their ends.
std::vector<std::string> foldersOfList(std::string_view list);
/// `below`, which starts with a slash, in `userDataFolder` and then in each of $XDG_DATA_DIRS, or else in /usr/local/share
/// and /usr/share; whether they are there or not.
std::vector<std::string> dataFolders(std::string_view below);

}  // namespace larkspan::platform
