#include "platform/home.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <vector>

namespace orvia {

std::string home_directory() {
  if (const char* home = std::getenv("HOME"); home && *home) return home;

  long hint = sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buf(hint > 0 ? static_cast<std::size_t>(hint) : 4096);
  for (;;) {
    passwd entry{};
    passwd* found = nullptr;
    int rc = getpwuid_r(geteuid(), &entry, buf.data(), buf.size(), &found);
    if (rc == EINTR) continue;
    if (rc == ERANGE && buf.size() < (std::size_t{1} << 20)) {
      buf.resize(buf.size() * 2);
      continue;
    }
    if (rc == 0 && found && found->pw_dir && *found->pw_dir) return found->pw_dir;
    return "/";
  }
}

}  // namespace orvia
