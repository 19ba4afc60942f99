#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "platform/walk/TreeWalk.h"
#include "tests/support/TempTree.h"

namespace qx::walktest {

// A temporary tree named for the walk tests.
class TempTree : public qx::test::TempTree {
 public:
  TempTree() : qx::test::TempTree("qx-walk") {}
};

// One visited entry, as both walkers report it.
struct Visit {
  int info;
  int level;
  int errnum;
  std::string path;
  std::string name;
  ino_t ino;

  bool operator==(const Visit&) const = default;
};

std::string describe(const Visit& visit);
std::string describe(const std::vector<Visit>& visits);
// The visits of describe()'s text, one a line.
std::vector<Visit> parseVisits(const std::string& text);

// A walk of `paths` with glibc's fts, and with TreeWalk. Names are compared
// with strcmp when `byName` is set. Folders named `skipName` are skipped on
// their D entry. The TreeWalk run also checks every entry's parentFd() and
// accessName() against its stat data and adds a Visit with info -1 when they
// disagree. A failed open adds info -2, a failed end -3, a failed close -4.
std::vector<Visit> walkWithFts(const std::vector<std::string>& paths, int options, bool byName,
                               const std::string& skipName = "");
std::vector<Visit> walkWithTreeWalk(const std::vector<std::string>& paths, int options, bool byName,
                                    const std::string& skipName = "");

int compareNames(const WalkEntry* a, const WalkEntry* b);

// Runs `body` in a forked child and returns what it returned, or "exit N" /
// "signal N" when the child did not end normally.
std::string runInChild(const std::function<std::string()>& body);

// Descriptors open in this process, and the lowest number not in use.
int openDescriptorCount();
int lowestFreeDescriptor();

}  // namespace qx::walktest
