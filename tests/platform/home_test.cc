#include "platform/home.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>
#include <string>

namespace orvia {
namespace {

TEST(HomeDirectory, PrefersHomeThenThePasswordDatabase) {
  const char* old = std::getenv("HOME");
  const std::optional<std::string> saved = old ? std::optional<std::string>(old) : std::nullopt;
  ::setenv("HOME", "/srv/users/anna", 1);
  const std::string from_home = home_directory();
  ::unsetenv("HOME");
  const std::string from_passwd = home_directory();
  ::setenv("HOME", "", 1);
  const std::string from_empty = home_directory();
  saved ? ::setenv("HOME", saved->c_str(), 1) : ::unsetenv("HOME");

  const passwd* entry = ::getpwuid(::geteuid());
  EXPECT_EQ(from_home, "/srv/users/anna");
  EXPECT_EQ(from_passwd, entry && entry->pw_dir && *entry->pw_dir ? entry->pw_dir : "/");
  EXPECT_EQ(from_empty, from_passwd);
}

}  // namespace
}  // namespace orvia
