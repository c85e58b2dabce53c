#include "platform/home.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace orvia {
namespace {

// Sets or unsets an environment variable for a scope.
class EnvVar {
 public:
  EnvVar(const char* name, const char* value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = old, had_ = true;
    if (value) {
      ::setenv(name, value, 1);
    } else {
      ::unsetenv(name);
    }
  }
  ~EnvVar() {
    if (had_) {
      ::setenv(name_, old_.c_str(), 1);
    } else {
      ::unsetenv(name_);
    }
  }

 private:
  const char* name_;
  std::string old_;
  bool had_ = false;
};

TEST(HomeDirectory, PrefersHomeThenThePasswordDatabase) {
  {
    EnvVar home("HOME", "/srv/users/anna");
    EXPECT_EQ(home_directory(), "/srv/users/anna");
  }
  std::string from_passwd;
  {
    EnvVar home("HOME", nullptr);
    from_passwd = home_directory();
  }
  const passwd* entry = ::getpwuid(::geteuid());
  EXPECT_EQ(from_passwd, entry && entry->pw_dir && *entry->pw_dir ? entry->pw_dir : "/");
  {
    EnvVar home("HOME", "");
    EXPECT_EQ(home_directory(), from_passwd);
  }
}

}  // namespace
}  // namespace orvia
