#ifndef TESTS_GLIBCHECK_H
#define TESTS_GLIBCHECK_H

#include <string>
#include <vector>

// Fails the running test for every warning, critical or error that GLib logs in this process.
//
// GLib takes one writer per process, so Install is called once, before any GLib use and before the
// tests run.
class GLibCheck {
 public:
  static void Install();

  // What has been logged since the last call; tests of the check itself empty it with this.
  static std::vector<std::string> TakeMessages();
};

#endif  // TESTS_GLIBCHECK_H
