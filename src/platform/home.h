// The user's home folder: $HOME when set and not empty, else the password database's entry for the
// current user, else "/".
#pragma once

#include <string>

namespace orvia {

std::string home_directory();

}  // namespace orvia
