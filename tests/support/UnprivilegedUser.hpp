// Test helper: while alive, runs with the effective user "nobody" (65534) when the process runs
// as root, so that file permissions apply; restores the previous effective user at the end.
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <cstdlib>

namespace corvane::testsupport {

class EffectiveUserWithoutPrivileges {
 public:
  EffectiveUserWithoutPrivileges() : previous_(::geteuid()) {
    if (previous_ != 0) {
      active_ = true;  // already unprivileged
    } else if (::seteuid(65534) == 0) {
      active_ = true;
      changed_ = true;
    }
  }
  ~EffectiveUserWithoutPrivileges() {
    if (changed_ && ::seteuid(previous_) != 0) std::abort();  // the rest of the run needs it
  }
  EffectiveUserWithoutPrivileges(const EffectiveUserWithoutPrivileges&) = delete;
  EffectiveUserWithoutPrivileges& operator=(const EffectiveUserWithoutPrivileges&) = delete;

  bool active() const { return active_; }

 private:
  uid_t previous_;
  bool active_ = false;
  bool changed_ = false;
};

}  // namespace corvane::testsupport
