#pragma once

#include <fts.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "platform/walk/TreeWalk.h"
#include "tests/support/TempTree.h"

namespace qx::walktest {

constexpr int kPropagation = FTS_PHYSICAL | FTS_NOCHDIR;
constexpr int kSizes = FTS_NOCHDIR | FTS_PHYSICAL | FTS_XDEV;

// One visited entry, as both walkers report it.
struct Visit {
  int info;
  int level;
  int errnum;
  std::string path;
  std::string name;
  ino_t ino;
};

// One visit a line, and back: a child process hands its walks over as text.
std::string describe(const std::vector<Visit>& visits);
std::vector<Visit> parseVisits(const std::string& text);
const Visit* find(const std::vector<Visit>& visits, const std::string& path, int info);

// Called after each entry is reported; true asks to skip that folder.
using OnVisit = std::function<bool(const Visit&)>;

// A walk of `paths` with glibc's fts, and with TreeWalk, names compared with
// strcmp when `byName`. The TreeWalk run also checks every entry's parentFd()
// and accessName() against its stat data and adds a Visit with info -1 when
// they disagree. A failed open adds info -2, a failed end -3, a failed close -4.
std::vector<Visit> walkWithFts(const std::vector<std::string>& paths, int options, bool byName,
                               const OnVisit& onVisit = nullptr);
std::vector<Visit> walkWithTreeWalk(const std::vector<std::string>& paths, int options, bool byName,
                                    const OnVisit& onVisit = nullptr);
// Both walks described, and an explanation when they differ.
std::string bothWalksDiffer(const std::vector<std::string>& paths, int options, bool byName);

// Descriptors open in this process.
int openDescriptorCount();

}  // namespace qx::walktest
