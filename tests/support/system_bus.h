// A D-Bus system bus in the test's private root, at the address where everything looks for it.
#pragma once

#include <sys/types.h>

class system_bus {
  public:
    system_bus(); // returns once it takes connections
    ~system_bus();
    system_bus(const system_bus &) = delete;
    system_bus &operator=(const system_bus &) = delete;

  private:
    pid_t pid_ = -1;
};
